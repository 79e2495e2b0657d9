#include "sharing/ServiceList.h"

#include <gmock/gmock.h>

#include <mutex>

#include "sharing/IServiceBrowserCallback.h"
#include "support/CapturedLog.h"
#include "support/Deadline.h"
#include "support/ProgramTime.h"

using testing::ElementsAre;
using testing::IsEmpty;
using tClock = std::chrono::steady_clock;

namespace {

/// Records what the list reports, as "+PATH" and "-PATH".
class tRecorder : public IServiceBrowserCallback {
 public:
  bool OnServiceAdded(const NFS_DATA_T& share) override {
    _Record("+" + share.path);
    return !refuse;
  }
  void OnServiceRemoved(const NFS_DATA_T& share) override { _Record("-" + share.path); }
  void OnPeerFound(const std::string& address) override { _Record("peer " + address); }

  std::vector<std::string> Events() {
    const std::lock_guard lock(m_Lock);
    return m_Events;
  }

  bool refuse = false;

 private:
  void _Record(const std::string& event) {
    const std::lock_guard lock(m_Lock);
    m_Events.push_back(event);
  }

  std::mutex m_Lock;
  std::vector<std::string> m_Events;
};

NFS_DATA_T Share(const std::string& path) {
  NFS_DATA_T share;
  share.path = path;
  return share;
}

/// A list that is stopped at the end of the test.
class ServiceList : public testing::Test {
 protected:
  ~ServiceList() override { m_List.Stop(); }

  tRecorder m_Recorder;
  CServiceList m_List{&m_Recorder};
};

TEST_F(ServiceList, OffersANewShareOnce) {
  EXPECT_TRUE(m_List.Add(Share("a:/x")));
  EXPECT_FALSE(m_List.Add(Share("a:/x")));
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a:/x"));
}

TEST_F(ServiceList, TellsUnitsWithTheSamePathApart) {
  EXPECT_TRUE(m_List.Add(Share("169.254.3.7:/media/sda1")));
  EXPECT_TRUE(m_List.Add(Share("169.254.3.8:/media/sda1")));
  EXPECT_THAT(m_Recorder.Events(),
              ElementsAre("+169.254.3.7:/media/sda1", "+169.254.3.8:/media/sda1"));
}

TEST_F(ServiceList, OffersARefusedShareAgain) {
  m_Recorder.refuse = true;
  EXPECT_FALSE(m_List.Add(Share("a:/x")));
  EXPECT_FALSE(m_List.Remove("a:/x"));
  m_Recorder.refuse = false;
  EXPECT_TRUE(m_List.Add(Share("a:/x")));
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a:/x", "+a:/x"));
}

TEST_F(ServiceList, ReportsAWithdrawnShareOnce) {
  m_List.Add(Share("a:/x"));
  EXPECT_TRUE(m_List.Remove("a:/x"));
  EXPECT_FALSE(m_List.Remove("a:/x"));
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a:/x", "-a:/x"));
}

TEST_F(ServiceList, AnUnknownWithdrawalChangesNothing) {
  m_List.Add(Share("a:/x"));
  EXPECT_FALSE(m_List.Remove("a:/y"));
  EXPECT_FALSE(m_List.Remove(""));
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a:/x"));
}

TEST_F(ServiceList, ForgetsASilentShareThreeSecondsAfterItsAnnouncement) {
  m_List.Start();
  const auto start = tClock::now();
  m_List.Add(Share("a:/x"));
  ASSERT_TRUE(Eventually([&] { return m_Recorder.Events().size() == 2; }));
  // Thirty ticks of 100 ms, the first of which may fall due at once.
  EXPECT_GE(tClock::now() - start, std::chrono::milliseconds(2800));
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a:/x", "-a:/x"));
  EXPECT_TRUE(m_List.Add(Share("a:/x"))) << "it is new again";
}

TEST_F(ServiceList, KeepsAShareThatIsAnnouncedAgain) {
  constexpr int kTicksOfALife = 30;
  tWaitsInHand waits;
  m_List.Add(Share("silent"));
  m_List.Add(Share("lively"));
  m_List.Start();
  for (int tick = 1; tick <= 3 * kTicksOfALife; ++tick) {
    ASSERT_TRUE(waits.TimeOut());
    if (tick % (kTicksOfALife - 2) == 0) m_List.Add(Share("lively"));
  }
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+silent", "+lively", "-silent"));
}

TEST_F(ServiceList, ReportsEverySharePresentWhenItStops) {
  m_List.Start();
  m_List.Add(Share("a"));
  m_List.Add(Share("b"));
  m_List.Add(Share("c"));
  m_List.Remove("b");
  m_List.Stop();
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+a", "+b", "+c", "-b", "-a", "-c"));
  m_List.Stop();
  EXPECT_EQ(m_Recorder.Events().size(), 6U) << "each is reported once";
}

TEST_F(ServiceList, RepublishOffersEveryShareOnceMore) {
  m_List.Add(Share("b"));
  m_List.Add(Share("a"));
  m_Recorder.refuse = true;
  m_List.Republish();
  EXPECT_THAT(m_Recorder.Events(), ElementsAre("+b", "+a", "+a", "+b"));
  EXPECT_TRUE(m_List.Remove("a")) << "a refusal changes nothing";
}

TEST_F(ServiceList, RefusesAFloodWithOneLine) {
  const tCapturedLog log;
  for (size_t share = 0; share < CServiceList::kMaxServices; ++share) {
    ASSERT_TRUE(m_List.Add(Share(std::to_string(share))));
  }
  EXPECT_FALSE(m_List.Add(Share("one more")));
  EXPECT_FALSE(m_List.Add(Share("another")));
  EXPECT_EQ(m_Recorder.Events().size(), CServiceList::kMaxServices);
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].level, kLogWarning);
  EXPECT_TRUE(m_List.Remove("0"));
  EXPECT_TRUE(m_List.Add(Share("one more")));
}

TEST(ServiceListDeathTest, NeedsAReceiver) {
  EXPECT_DEATH(CServiceList(nullptr),
               "voldrake: ServiceList:[0-9]+: .*: Assertion `m_pCallback !=0' failed\\.");
}

}  // namespace
