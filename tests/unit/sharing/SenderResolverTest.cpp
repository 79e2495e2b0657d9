#include "sharing/SenderResolver.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

#include "sharing/DottedAddress.h"
#include "support/CapturedLog.h"
#include "support/ProgramTime.h"

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kSocket = 42;
constexpr tHardwareAddress kAddress{2, 0, 0, 0, 0, 1};
constexpr std::chrono::milliseconds kBetweenNudges{250};

sockaddr_in Sender(const char* address) {
  sockaddr_in sender{};
  sender.sin_family = AF_INET;
  sender.sin_port = htons(10000);
  sender.sin_addr.s_addr = inet_addr(address);
  return sender;
}

/// A kernel that knows a sender from the given look on, and records what it is asked to send.
class tFakeKernel : public tSenderResolver {
 public:
  /// Looks are counted from 1; 0: the sender is never known.
  explicit tFakeKernel(int knownFrom) : m_KnownFrom(knownFrom) {}

  int looks = 0;
  std::vector<std::string> nudges;
  std::vector<steady_clock::time_point> times;  ///< of the nudges

 protected:
  int _Query(int socket, const sockaddr_in&, tHardwareAddress& address) override {
    EXPECT_EQ(socket, kSocket);
    ++looks;
    if (m_KnownFrom == 0 || looks < m_KnownFrom) return ENXIO;
    address = kAddress;
    return 0;
  }

  void _SendNudge(int socket, const sockaddr_in& destination) override {
    EXPECT_EQ(socket, kSocket);
    times.push_back(steady_clock::now());
    nudges.push_back(Dotted(destination.sin_addr) + ":" +
                     std::to_string(ntohs(destination.sin_port)));
  }

 private:
  const int m_KnownFrom;
};

TEST(SenderResolver, LooksUpToFourTimesAndNudgesTheSenderAfterEachLookInVain) {
  const struct {
    int knownFrom;
    int looks;
    size_t nudges;
    bool found;
  } cases[] = {{1, 1, 0, true}, {2, 2, 1, true}, {4, 4, 3, true}, {5, 4, 4, false}};
  for (const auto& [knownFrom, looks, nudges, found] : cases) {
    const tCapturedLog log;
    tFakeKernel kernel(knownFrom);
    EXPECT_EQ(kernel.Resolve(kSocket, Sender("169.254.3.7")) == kAddress, found) << knownFrom;
    EXPECT_EQ(kernel.looks, looks) << knownFrom;
    EXPECT_EQ(kernel.nudges, std::vector<std::string>(nudges, "169.254.3.7:2304")) << knownFrom;
    EXPECT_EQ(kernel.IsCatchingUp(), !found) << knownFrom;
    if (found) {
      EXPECT_THAT(log.Lines(), IsEmpty()) << knownFrom;
    } else {
      EXPECT_THAT(log.Lines(),
                  ElementsAre(tLogLine{kLogError,
                                       "attempt 4 to obtain MAC for 169.254.3.7 failed with error "
                                       "6"}));
    }
  }
}

TEST(SenderResolver, KeepsTheErrorOfTheLastLookInVain) {
  tFakeKernel kernel(2);
  EXPECT_EQ(kernel.LastError(), 0);
  ASSERT_TRUE(kernel.Resolve(kSocket, Sender("169.254.3.7")));
  EXPECT_EQ(kernel.LastError(), ENXIO);
}

/// A resolver that has just failed to find a sender; the next is known from that look on.
class tCatchingUp : public tFakeKernel {
 public:
  explicit tCatchingUp(int knownFrom = 0) : tFakeKernel(knownFrom) {
    EXPECT_FALSE(Resolve(kSocket, Sender("169.254.3.7")));
    EXPECT_TRUE(IsCatchingUp());
    looks = 0;
    nudges.clear();
    times.clear();
  }
};

TEST(SenderResolver, GivesEachSenderOneLookWhileItCatchesUp) {
  tCatchingUp kernel;
  for (int sender = 1; sender <= 5; ++sender) {
    EXPECT_FALSE(kernel.Resolve(kSocket, Sender("10.9.9.9")));
    EXPECT_EQ(kernel.looks, sender);
  }
  EXPECT_TRUE(kernel.IsCatchingUp());
}

TEST(SenderResolver, FindsWhoIsKnownWhileItCatchesUp) {
  const tCapturedLog log(kLogWarning);
  tCatchingUp kernel(5);
  kernel.looks = 4;
  EXPECT_EQ(kernel.Resolve(kSocket, Sender("169.254.3.8")), kAddress);
  EXPECT_THAT(kernel.nudges, IsEmpty());
  EXPECT_TRUE(kernel.IsCatchingUp()) << "the queue decides";
  kernel.EndCatchingUp();
  EXPECT_THAT(log.Lines(), ElementsAre(testing::Field(&tLogLine::level, kLogError)))
      << "none was dropped, only the first waited for";
}

TEST(SenderResolver, NudgesFourTimesASecondAtMostWhileItCatchesUp) {
  tCatchingUp kernel;
  for (int number = 1; number <= 20; ++number) {
    if (number % 10 == 0) LetTimePass(kBetweenNudges);
    EXPECT_FALSE(kernel.Resolve(kSocket, Sender("10.9.9.9")));
  }
  EXPECT_GE(kernel.nudges.size(), 2U) << "enough time has passed twice";
  for (size_t nudge = 1; nudge < kernel.times.size(); ++nudge) {
    EXPECT_GE(kernel.times[nudge] - kernel.times[nudge - 1], kBetweenNudges);
  }
}

TEST(SenderResolver, TellsOnceHowManyItDroppedAndIsPatientAgain) {
  tCatchingUp kernel;
  const tCapturedLog log;
  for (int number = 0; number < 3; ++number) {
    EXPECT_FALSE(kernel.Resolve(kSocket, Sender("10.9.9.9")));
  }
  kernel.EndCatchingUp();
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogWarning,
                                   "CUdpRxSocket::FilteredRead: dropped 3 datagrams of senders "
                                   "without known hardware address"}));
  EXPECT_FALSE(kernel.IsCatchingUp());
  kernel.EndCatchingUp();
  EXPECT_EQ(log.Lines().size(), 1U) << "nothing is counted twice";
  kernel.looks = 0;
  EXPECT_FALSE(kernel.Resolve(kSocket, Sender("169.254.3.7")));
  EXPECT_EQ(kernel.looks, 4);
}

}  // namespace
