#include "messaging/LocalStream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <vector>

#include "support/Deadline.h"
#include "support/LoopbackListener.h"
#include "support/ProgramTime.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using tClock = std::chrono::steady_clock;

namespace {

/// What is left of a stream's time when the test has it wait that time out.
constexpr milliseconds kShort{200};

/// More than the buffers of both ends of a connection hold.
const std::vector<uint8_t> kTooMuch(64 * 1024 * 1024);

std::span<const uint8_t> BytesOf(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(LocalStream, DeliversWhatIsSentAndClosesAtItsEnd) {
  tLoopbackListener listener;
  listener.Listen();
  {
    tLocalStream stream(kDeadline);
    ASSERT_TRUE(stream.Connect(listener.Port()));
    EXPECT_TRUE(stream.Send(BytesOf("one ")));
    EXPECT_TRUE(stream.Send(BytesOf("")));
    EXPECT_TRUE(stream.Send(BytesOf("two")));
  }
  EXPECT_EQ(listener.ReceiveAll(), "one two");
}

TEST(LocalStream, DeliversMoreThanTheBuffersHoldToAReader) {
  tLoopbackListener listener;
  listener.Listen();
  std::string received;
  std::thread reader([&] { received = listener.ReceiveAll(); });
  bool sent = false;
  {
    tLocalStream stream(kDeadline);
    sent = stream.Connect(listener.Port()) && stream.Send(kTooMuch);
  }
  reader.join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(received.size(), kTooMuch.size());
}

TEST(LocalStream, IsRefusedAtOnceWithoutAListener) {
  const tLoopbackListener silent;
  tLocalStream stream(std::chrono::hours(1));
  EXPECT_FALSE(stream.Connect(silent.Port()));
}

TEST(LocalStream, GivesUpOnAReaderThatNeverReads) {
  tLoopbackListener listener;
  listener.Listen();
  const auto start = tClock::now();
  tLocalStream stream(kDeadline);
  ASSERT_TRUE(stream.Connect(listener.Port()));
  const tFileDescriptor neverRead = listener.Accept();
  LetTimePass(kDeadline - kShort);
  EXPECT_FALSE(stream.Send(kTooMuch));
  const auto spent = tClock::now() - start;
  EXPECT_GE(spent, kDeadline);
  EXPECT_LT(spent, 2 * kDeadline);
}

TEST(LocalStream, ConnectingAndAllSendingShareTheTime) {
  tLoopbackListener listener;
  listener.Listen();
  tLocalStream stream(kDeadline);
  ASSERT_TRUE(stream.Connect(listener.Port()));
  const tFileDescriptor neverRead = listener.Accept();
  LetTimePass(kDeadline - kShort);
  EXPECT_FALSE(stream.Send(kTooMuch));
  const auto start = tClock::now();
  for (int attempt = 0; attempt < 1000; ++attempt) EXPECT_FALSE(stream.Send(kTooMuch));
  EXPECT_LT(tClock::now() - start, kDeadline) << "each attempt waited anew";
}

TEST(LocalStream, GivesUpOnAListenerWhoseQueueIsFull) {
  tLoopbackListener listener;
  listener.ListenWithFullQueue();
  const auto start = tClock::now();
  tLocalStream stream(kShort);
  EXPECT_FALSE(stream.Connect(listener.Port()));
  const auto spent = tClock::now() - start;
  EXPECT_GE(spent, kShort);
  EXPECT_LT(spent, kDeadline);
}

TEST(LocalStream, FailsWithoutASignalWhenTheOtherSideIsGone) {
  tLoopbackListener listener;
  listener.Listen();
  tLocalStream stream(kDeadline);
  ASSERT_TRUE(stream.Connect(listener.Port()));
  {
    const tFileDescriptor connection = listener.Accept();
    const linger reset{1, 0};
    ASSERT_EQ(setsockopt(connection.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
  }
  EXPECT_TRUE(Eventually([&] { return !stream.Send(BytesOf("x")); }));
  EXPECT_FALSE(stream.Send(BytesOf("x"))) << "the process lives on, and so does the failure";
}

}  // namespace
