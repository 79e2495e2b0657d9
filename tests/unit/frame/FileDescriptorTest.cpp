#include "frame/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "frame/SystemCall.h"

namespace {

int Opened() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

TEST(FileDescriptor, ClosesWhatItHoldsAtItsEnd) {
  const int number = Opened();
  { const tFileDescriptor descriptor(number); }
  EXPECT_FALSE(IsOpen(number));
}

TEST(FileDescriptor, HoldsNothingByDefault) {
  const tFileDescriptor descriptor;
  EXPECT_FALSE(descriptor.IsOpen());
}

TEST(FileDescriptor, GivesADescriptorAwayWithoutClosingIt) {
  const int number = Opened();
  {
    tFileDescriptor descriptor(number);
    EXPECT_EQ(descriptor.Release(), number);
    EXPECT_FALSE(descriptor.IsOpen());
  }
  EXPECT_TRUE(IsOpen(number));
  close(number);
}

TEST(FileDescriptor, ClosesTheOldWhenItTakesANew) {
  const int first = Opened();
  const int second = Opened();
  tFileDescriptor descriptor(first);
  descriptor.Reset(second);
  EXPECT_FALSE(IsOpen(first));
  EXPECT_TRUE(IsOpen(second));
  descriptor = tFileDescriptor();
  EXPECT_FALSE(IsOpen(second));
}

TEST(FileDescriptor, MovesItsDescriptor) {
  const int number = Opened();
  tFileDescriptor source(number);
  const tFileDescriptor target(std::move(source));
  EXPECT_EQ(target.Get(), number);
  EXPECT_TRUE(IsOpen(number));
}

TEST(FileDescriptor, KeepsErrnoWhenItCloses) {
  tFileDescriptor descriptor(Opened());
  close(descriptor.Get());  // closing again fails with EBADF
  errno = ENOENT;
  descriptor.Reset();
  EXPECT_EQ(errno, ENOENT);
}

TEST(RetryInterrupted, RepeatsACallForAsLongAsASignalInterruptsIt) {
  int calls = 0;
  const int result = RetryInterrupted([&] {
    errno = EINTR;
    return ++calls < 3 ? -1 : 7;
  });
  EXPECT_EQ(result, 7);
  EXPECT_EQ(calls, 3);
}

TEST(RetryInterrupted, GivesOtherFailuresBackWithTheirErrno) {
  int calls = 0;
  const int result = RetryInterrupted([&] {
    ++calls;
    errno = EACCES;
    return -1;
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(calls, 1);
}

}  // namespace
