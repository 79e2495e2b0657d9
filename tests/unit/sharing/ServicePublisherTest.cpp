#include "sharing/ServicePublisher.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "sharing/ExportTable.h"
#include "sharing/NfsServiceMessage.h"
#include "support/CapturedLog.h"
#include "support/Deadline.h"
#include "support/ProgramTime.h"
#include "support/RecordedCommands.h"

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::SizeIs;

namespace {

/// An address that the machine has; what is sent from it stays on the loopback interface.
constexpr const char* kOwn = "127.0.0.1";
constexpr const char* kNone = "";
constexpr const char* kPeer = "169.254.3.7";

std::string ExportOf(const std::string& mode, const std::string& target) {
  return "exportfs -o " + mode + ",no_root_squash,no_subtree_check " + target;
}

std::string Described(std::span<const uint8_t> datagram) {
  if (datagram.empty()) return "(empty)";
  CNfsServiceMessage message;
  if (!message.Decode(datagram)) return "(bad)";
  const char* verb = message.GetMessageType() == kServiceAnnounced ? "announces " : "withdraws ";
  return verb + message.GetPath();
}

/// A publisher whose network is the test's: it has the address that it is given, and what it sends
/// is recorded among the commands that it runs.
class tPublisher : public CServicePublisher {
 public:
  explicit tPublisher(tExportTable& exports, tRecordedCommands& record, const char* address = kNone)
      : CServicePublisher(exports, record.Runner()), m_Record(record), m_Address(address) {}

  using CServicePublisher::_IsNetWorkReConfigured;

  void SetAddress(const char* address) { m_Address = address; }

  void Add(const std::string& path, bool readOnly = false) {
    EXPECT_TRUE(AddServiceNFS(path, MEDIA_TYPE_T::kVolume, "", "", "", "", readOnly));
  }

 protected:
  bool _ReadAddress(in_addr_t& address) override {
    return inet_pton(AF_INET, m_Address, &address) == 1;
  }
  void _Send(std::span<const uint8_t> datagram) override { m_Record.Note(Described(datagram)); }

 private:
  tRecordedCommands& m_Record;
  std::atomic<const char*> m_Address;
};

/// A publisher that is not running; its network is ready.
class ServicePublisher : public testing::Test {
 protected:
  ServicePublisher() { EXPECT_TRUE(m_Publisher._IsNetWorkReConfigured()); }

  [[nodiscard]] std::vector<std::string> Done() { return m_Record.Take(); }

  tExportTable m_Exports;
  tRecordedCommands m_Record;
  tPublisher m_Publisher{m_Exports, m_Record, kOwn};
};

TEST_F(ServicePublisher, ExportsToEverybodyAndWritableToThePeerFirst) {
  const struct {
    bool peerKnown;
    bool readOnly;
    std::vector<std::string> commands;
  } cases[] = {
      {false, false, {ExportOf("ro", "*:/media/sda1")}},
      {false, true, {ExportOf("ro", "*:/media/sda1")}},
      {true, false, {ExportOf("rw", "169.254.3.7:/media/sda1"), ExportOf("ro", "*:/media/sda1")}},
      {true, true, {ExportOf("ro", "*:/media/sda1")}},
  };
  for (const auto& [peerKnown, readOnly, commands] : cases) {
    tExportTable exports;
    tPublisher publisher(exports, m_Record, kOwn);
    ASSERT_TRUE(publisher._IsNetWorkReConfigured());
    if (peerKnown) publisher.SetPeerIpAddress(kPeer);
    publisher.Add("/media/sda1", readOnly);
    EXPECT_EQ(Done(), commands) << peerKnown << readOnly;
  }
}

TEST_F(ServicePublisher, QuotesAPathThatIsNoPlainWord) {
  m_Publisher.SetPeerIpAddress(kPeer);
  m_Publisher.Add("/media/my stick");
  m_Publisher.RemoveServiceNFS("/media/my stick");
  EXPECT_THAT(
      Done(),
      ElementsAre(ExportOf("rw", "'169.254.3.7:/media/my stick'"),
                  ExportOf("ro", "'*:/media/my stick'"), "withdraws /media/my stick",
                  "exportfs -u '169.254.3.7:/media/my stick'", "exportfs -u '*:/media/my stick'"));
}

TEST_F(ServicePublisher, KeepsTheEntryOfAPathThatIsSharedAlready) {
  m_Publisher.SetPeerIpAddress(kPeer);
  m_Publisher.Add("/media/sda1", true);
  m_Publisher.Add("/media/sda1", false);
  EXPECT_THAT(Done(), Each(ExportOf("ro", "*:/media/sda1")));
}

TEST_F(ServicePublisher, WithdrawsThenUnexports) {
  m_Publisher.Add("/media/sda1");
  m_Publisher.Add("/media/sdb1");
  static_cast<void>(Done());
  m_Publisher.RemoveServiceNFS("/media/sda1");
  EXPECT_THAT(Done(), ElementsAre("withdraws /media/sda1", "exportfs -u *:/media/sda1"));
  m_Publisher.SetPeerIpAddress(kPeer);
  m_Publisher.RemoveServiceNFS("/media/sdb1");
  EXPECT_THAT(Done(), ElementsAre("withdraws /media/sdb1", "exportfs -u 169.254.3.7:/media/sdb1",
                                  "exportfs -u *:/media/sdb1"));
  m_Publisher.RemoveServiceNFS("/media/sdb1");
  m_Publisher.RemoveServiceNFS("/media/never");
  EXPECT_THAT(Done(), IsEmpty());
}

TEST_F(ServicePublisher, NeitherExportsNorAnnouncesWithoutAnAddress) {
  tExportTable exports;
  tPublisher publisher(exports, m_Record, kNone);
  EXPECT_FALSE(publisher._IsNetWorkReConfigured());
  publisher.Add("/media/sda1");
  EXPECT_THAT(Done(), IsEmpty());
  publisher.RemoveServiceNFS("/media/sda1");
  EXPECT_THAT(Done(), ElementsAre("exportfs -u *:/media/sda1"));
}

TEST_F(ServicePublisher, MovesTheExportsOfThePeerWithItsAddress) {
  m_Publisher.Add("/media/sda1");
  m_Publisher.Add("/media/sdb1", true);
  static_cast<void>(Done());
  m_Publisher.SetPeerIpAddress("169.254.3.6");
  EXPECT_THAT(Done(), IsEmpty()) << "nothing is published yet";
  m_Publisher.StartPublishing();
  m_Publisher.SetPeerIpAddress(kPeer);
  EXPECT_THAT(
      Done(),
      ElementsAre("exportfs -u 169.254.3.6:/media/sda1", ExportOf("rw", "169.254.3.7:/media/sda1"),
                  "exportfs -u 169.254.3.6:/media/sdb1", ExportOf("rw", "169.254.3.7:/media/sdb1")))
      << "the read-only volume too";
  m_Publisher.SetPeerIpAddress(kPeer);
  EXPECT_THAT(Done(), IsEmpty()) << "it is there already";
}

TEST_F(ServicePublisher, HasNothingToUnexportForAPeerThatWasNotKnown) {
  m_Publisher.StartPublishing();
  m_Publisher.Add("/media/sda1");
  static_cast<void>(Done());
  m_Publisher.SetPeerIpAddress(kPeer);
  EXPECT_THAT(Done(), ElementsAre(ExportOf("rw", "169.254.3.7:/media/sda1")));
}

TEST_F(ServicePublisher, IgnoresAPeerAddressThatIsNone) {
  m_Publisher.StartPublishing();
  m_Publisher.Add("/media/sda1");
  static_cast<void>(Done());
  for (const char* address : {"", "peer", "169.254.3", "169.254.3.256", "169.254.3.7 ", "::1"}) {
    const tCapturedLog log;
    m_Publisher.SetPeerIpAddress(address);
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{kLogError, std::string("Invalid ip address: ") + address}));
    EXPECT_THAT(Done(), IsEmpty());
  }
}

TEST_F(ServicePublisher, ClearsAllExportsAndMakesThemAgain) {
  m_Publisher.SetPeerIpAddress(kPeer);
  m_Publisher.Add("/media/sdb1", true);
  m_Publisher.Add("/media/sda1");
  static_cast<void>(Done());
  m_Publisher.RestartNfsServer();
  EXPECT_THAT(Done(),
              ElementsAre("exportfs -a -r", ExportOf("rw", "169.254.3.7:/media/sda1"),
                          ExportOf("ro", "*:/media/sda1"), ExportOf("ro", "*:/media/sdb1")));
}

TEST_F(ServicePublisher, JudgesACommandByItsExitStatusAlone) {
  const struct {
    int status;
    bool failed;
  } cases[] = {{0, false}, {256, true}, {255 * 256, true}, {9, false}, {-1, true}};
  for (const auto& [status, failed] : cases) {
    m_Record.End("exportfs", status);
    const tCapturedLog log;
    m_Publisher.RestartNfsServer();
    m_Publisher.Add("/media/sda1");
    EXPECT_EQ(log.Holds(kLogError, "CServicePublisher::RestartNfsServer: error clearing exports"),
              failed)
        << status;
    EXPECT_EQ(log.Holds(kLogError, "_Export: error exporting *:/media/sda1"), failed) << status;
    EXPECT_EQ(log.Holds(kLogInfo, "_Export: exporting '*:/media/sda1' PASS"), !failed) << status;
    EXPECT_THAT(Done(), testing::Not(IsEmpty())) << "exporting goes on";
  }
}

TEST_F(ServicePublisher, TellsWhatStaysExportedForWantOfAProcess) {
  const std::string line = "_Unexport: exportfs cannot be run, still exported: *:/media/sda1";
  const struct {
    int status;
    bool reported;
  } cases[] = {{0, false}, {256, false}, {9, false}, {127 * 256, true}, {-1, true}};
  for (const auto& [status, reported] : cases) {
    m_Publisher.Add("/media/sda1");
    m_Record.End("exportfs -u", status);
    const tCapturedLog log;
    m_Publisher.RemoveServiceNFS("/media/sda1");
    EXPECT_EQ(log.Holds(kLogError, line), reported) << status;
  }
  tExportTable exports;
  tPublisher offline(exports, m_Record, kNone);
  offline.Add("/media/sda1");
  const tCapturedLog log;
  offline.RemoveServiceNFS("/media/sda1");
  EXPECT_FALSE(log.Holds(kLogError, line)) << "it was not exported";
}

TEST_F(ServicePublisher, NoticesEachChangeOfTheAddressOnce) {
  tExportTable exports;
  tPublisher publisher(exports, m_Record);
  const struct {
    const char* address;
    bool changed;
  } looks[] = {{kNone, false},       {kOwn, true},  {kOwn, false},  {"127.0.0.2", true},
               {"127.0.0.2", false}, {kNone, true}, {kNone, false}, {"127.0.0.2", true},
               {"192.0.2.1", false}, {kOwn, true}};
  for (const auto& [address, changed] : looks) {
    publisher.SetAddress(address);
    EXPECT_EQ(publisher._IsNetWorkReConfigured(), changed) << address;
  }
}

TEST_F(ServicePublisher, RefusesAServiceThatDoesNotFitIntoAnAnnouncement) {
  constexpr size_t kRoom = 1500 - 20 - 3;
  const std::string longest(kRoom, 'x');
  m_Publisher.Add(longest);
  const tCapturedLog log;
  EXPECT_FALSE(
      m_Publisher.AddServiceNFS(longest + "x", MEDIA_TYPE_T::kVolume, "", "", "", "", false));
  EXPECT_THAT(Done(), SizeIs(1));
  EXPECT_TRUE(
      log.Holds(kLogError, "AddServiceNFS: does not fit into an announcement: " + longest + "x"));
}

/// A publisher that runs; the test decides when a second is over.
class ServicePublisherThread : public ServicePublisher {
 protected:
  ~ServicePublisherThread() override { m_Publisher.Stop(); }

  void Start() {
    m_Publisher.Start();
    ASSERT_TRUE(m_Waits.AwaitWait());
  }
  /// What the next pass does.
  [[nodiscard]] std::vector<std::string> Pass() {
    static_cast<void>(Done());
    EXPECT_TRUE(m_Waits.TimeOut());
    return Done();
  }

  tWaitsInHand m_Waits;
};

TEST_F(ServicePublisherThread, AnnouncesEveryServiceOnceAPassInTheOrderOfThePaths) {
  for (const char* path : {"/media/sdb1", "/media/sda1", "/media/sda10"}) m_Publisher.Add(path);
  Start();
  EXPECT_THAT(Pass(), IsEmpty()) << "not yet";
  m_Publisher.StartPublishing();
  static_cast<void>(Pass());
  EXPECT_THAT(Pass(), ElementsAre("announces /media/sda1", "announces /media/sda10",
                                  "announces /media/sdb1"));
  m_Publisher.SetAddress(kNone);
  static_cast<void>(Pass());
  EXPECT_THAT(Pass(), IsEmpty());
}

TEST_F(ServicePublisherThread, AnnouncesANewServiceAtOnce) {
  m_Publisher.StartPublishing();
  Start();
  static_cast<void>(Pass());
  m_Publisher.Add("/media/sda1");
  std::vector<std::string> seen;
  EXPECT_TRUE(Eventually([&] {
    for (std::string& line : Done()) seen.push_back(std::move(line));
    return !seen.empty() && seen.back() == "announces /media/sda1";
  })) << "without a time-out in between";
}

TEST_F(ServicePublisherThread, RedoesTheExportsWhenTheAddressChanges) {
  m_Publisher.Add("/media/sda1");
  Start();
  const tCapturedLog log;
  m_Publisher.SetAddress("127.0.0.2");
  EXPECT_THAT(Pass(), ElementsAre("exportfs -a -r", ExportOf("ro", "*:/media/sda1")));
  EXPECT_TRUE(log.Holds(kLogInfo, "CServicePublisher: Network Config Changed"));
  m_Publisher.SetAddress(kNone);
  EXPECT_THAT(Pass(), IsSupersetOf({"exportfs -a -r"}));
}

class ServicePublisherFlush : public ServicePublisherThread,
                              public testing::WithParamInterface<std::pair<int, tLogLine>> {};

INSTANTIATE_TEST_SUITE_P(
    EndingWith, ServicePublisherFlush,
    testing::Values(std::pair(0, tLogLine{kLogInfo, "_ExportFlush: 'exportfs -f' PASS"}),
                    std::pair(256, tLogLine{kLogError, "_ExportFlush: 'exportfs -f' FAILED"})));

TEST_P(ServicePublisherFlush, ComesOnceInTheThirdPassWithAPeer) {
  const auto& [status, line] = GetParam();
  m_Record.End("exportfs -f", status);
  const tCapturedLog log;
  Start();
  EXPECT_THAT(Pass(), IsEmpty());
  m_Publisher.SetPeerIpAddress(kPeer);
  EXPECT_THAT(Pass(), ElementsAre("(empty)"));
  EXPECT_THAT(Pass(), ElementsAre("(empty)"));
  EXPECT_THAT(Pass(), ElementsAre("(empty)", "exportfs -f"));
  EXPECT_TRUE(log.Holds(line.level, line.message));
  for (int pass = 1; pass <= 4; ++pass) EXPECT_THAT(Pass(), ElementsAre("(empty)"));
}

TEST_F(ServicePublisherThread, ShowsThePeerItsAddressWhileThereIsNothingToAnnounce) {
  m_Publisher.StartPublishing();
  Start();
  static_cast<void>(Pass());
  EXPECT_THAT(Pass(), IsEmpty()) << "no peer is known";
  m_Publisher.SetPeerIpAddress(kPeer);
  static_cast<void>(Pass());
  EXPECT_THAT(Pass(), Contains("(empty)"));
  m_Publisher.Add("/media/sda1");
  static_cast<void>(Pass());
  EXPECT_THAT(Pass(), testing::Not(Contains("(empty)")));
}

TEST_F(ServicePublisherThread, SleepsForASecondBetweenItsPasses) {
  Start();
  for (int pass = 1; pass <= 3; ++pass) {
    EXPECT_LE(m_Waits.Asked(), std::chrono::seconds(1));
    static_cast<void>(Pass());
  }
}

/// What the publisher's thread has used up, by the kernel's account: what it did not get while
/// others ran does not count.
struct tUse {
  nanoseconds processor{};
  long waits = 0;  ///< times that it gave the processor away
};

tUse UseOfThisThread() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return {std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec), usage.ru_nvcsw};
}

/// One pass over all services.
struct tPass {
  steady_clock::time_point begin;
  tUse before;
  tUse after;
};

/// Really sends, on the loopback interface, and notes what each pass takes. Requires: its services
/// are there before it starts.
class tMeasuredPublisher : public tPublisher {
 public:
  tMeasuredPublisher(tExportTable& exports, tRecordedCommands& record, size_t services)
      : tPublisher(exports, record, kOwn), m_Services(services) {}

  /// The passes that are over.
  [[nodiscard]] std::vector<tPass> Passes() {
    const std::lock_guard lock(m_Lock);
    return m_Passes;
  }

 protected:
  void _Send(std::span<const uint8_t> datagram) override NO_THREAD_SAFETY_ANALYSIS {
    if (m_Sent == 0) m_Current = {steady_clock::now(), UseOfThisThread(), {}};
    CServicePublisher::_Send(datagram);
    if (++m_Sent < m_Services) return;
    m_Sent = 0;
    m_Current.after = UseOfThisThread();
    const std::lock_guard lock(m_Lock);
    m_Passes.push_back(m_Current);
  }

 private:
  const size_t m_Services;
  size_t m_Sent = 0;
  tPass m_Current;
  std::mutex m_Lock;
  std::vector<tPass> m_Passes;
};

/// Between two passes lies a second's sleep; what is left to show is that a pass takes no time.
TEST(ServicePublisherPass, KeepsTheRhythmOfASecondWithAThousandServices) {
  constexpr size_t kServices = 1000;
  constexpr size_t kPasses = 4;
  tExportTable exports;
  tRecordedCommands record;
  tMeasuredPublisher publisher(exports, record, kServices);
  ASSERT_TRUE(publisher._IsNetWorkReConfigured());
  for (size_t number = 1; number <= kServices; ++number) {
    publisher.Add("/media/v" + std::to_string(number));
  }
  publisher.Start();
  publisher.StartPublishing();
  ASSERT_TRUE(Eventually([&] { return publisher.Passes().size() >= kPasses; }));
  publisher.Stop();
  const std::vector<tPass> passes = publisher.Passes();
  for (size_t number = 1; number < kPasses; ++number) {
    const tPass& pass = passes[number];
    // The first may have been woken by the last service, the second by the order to publish.
    if (number > 2) {
      EXPECT_GE(pass.begin - passes[number - 1].begin, milliseconds(990));
    }
    EXPECT_LE(pass.after.processor - pass.before.processor, milliseconds(300));
    EXPECT_LT(pass.after.waits - pass.before.waits, static_cast<long>(kServices / 10));
  }
}

}  // namespace
