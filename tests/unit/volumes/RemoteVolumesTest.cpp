#include "volumes/RemoteVolumes.h"

#include <gmock/gmock.h>

#include "messaging/DataSourceInfo.h"
#include "messaging/tMessageClient.h"
#include "sharing/ExportTable.h"
#include "sharing/IServiceBrowserCallback.h"
#include "sharing/ServiceList.h"
#include "sharing/ServicePublisher.h"
#include "support/CapturedLog.h"
#include "support/OwnNfsRoot.h"
#include "support/RecordedCommands.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char* kRefusal =
    "OnServiceAdded: 4096 messages wait for the application, further shares are refused";

/// A disk of the peer's.
NFS_DATA_T Share(const std::string& source = "169.254.3.7:/media/sda1") {
  NFS_DATA_T share;
  share.path = source;
  share.fromPeer = true;
  return share;
}

/// Hands what its list reports to the remote volumes.
class tReceiver : public IServiceBrowserCallback {
 public:
  explicit tReceiver(tRemoteVolumes& remote) : m_Remote(remote) {}
  bool OnServiceAdded(const NFS_DATA_T& share) override { return m_Remote.Add(share); }
  void OnServiceRemoved(const NFS_DATA_T& share) override { m_Remote.Remove(share); }
  void OnPeerFound(const std::string& address) override { m_Remote.PeerFound(address); }

 private:
  tRemoteVolumes& m_Remote;
};

/// The messages wait for an application that never comes.
class RemoteVolumes : public testing::Test {
 protected:
  void FillQueue(size_t count) {
    for (size_t number = 0; number < count; ++number) {
      DataSourceInfo info{.path = "/media/sda1"};
      m_Messages.PublishDataSource(info);
    }
  }

  const tOwnNfsRoot m_Root;
  tRecordedCommands m_Commands;
  tMessageClient m_Messages{1};
  tExportTable m_Exports;
  CServicePublisher m_Publisher{m_Exports, m_Commands.Runner()};
  tRemoteVolumes m_Remote{m_Messages, m_Publisher, CNfsMounter(m_Commands.Runner())};
};

TEST_F(RemoteVolumes, ReportAShareOnceItIsMounted) {
  EXPECT_TRUE(m_Remote.Add(Share()));
  EXPECT_THAT(m_Commands.Take(), ElementsAre(StartsWith("mount -t nfs -o rw,")));
  EXPECT_EQ(m_Messages.PendingCount(), 1U);
}

TEST_F(RemoteVolumes, RefuseAShareThatCannotBeMounted) {
  m_Commands.End("mount", 32 * 256);
  EXPECT_FALSE(m_Remote.Add(Share()));
  EXPECT_EQ(m_Messages.PendingCount(), 0U);
}

TEST_F(RemoteVolumes, ReportARemovalHoweverTheUnmountEnds) {
  for (const int status : {0, 256}) {
    m_Messages.ClearPending();
    m_Commands.End("umount", status);
    m_Remote.Remove(Share());
    EXPECT_THAT(m_Commands.Take(), ElementsAre(StartsWith("umount -f -l ")));
    EXPECT_EQ(m_Messages.PendingCount(), 1U) << status;
  }
}

TEST_F(RemoteVolumes, TakeNoShareWhileTooManyReportsWaitAndSayWhenThatBegins) {
  FillQueue(tRemoteVolumes::kMaxPendingReports - 1);
  const tCapturedLog log(kLogWarning);
  EXPECT_TRUE(m_Remote.Add(Share("169.254.3.7:/media/last"))) << "one place is left";
  EXPECT_THAT(log.Lines(), IsEmpty());
  static_cast<void>(m_Commands.Take());
  EXPECT_FALSE(m_Remote.Add(Share()));
  EXPECT_FALSE(m_Remote.Add(Share()));
  EXPECT_THAT(m_Commands.Take(), IsEmpty()) << "it is not even mounted";
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogWarning, kRefusal}));
  m_Messages.ClearPending();
  EXPECT_TRUE(m_Remote.Add(Share()));
  FillQueue(tRemoteVolumes::kMaxPendingReports);
  EXPECT_FALSE(m_Remote.Add(Share()));
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogWarning, kRefusal}, tLogLine{kLogWarning, kRefusal}));
}

TEST_F(RemoteVolumes, ReportARemovalHoweverManyReportsWait) {
  FillQueue(tRemoteVolumes::kMaxPendingReports);
  m_Remote.Remove(Share());
  EXPECT_EQ(m_Messages.PendingCount(), tRemoteVolumes::kMaxPendingReports + 1);
}

TEST_F(RemoteVolumes, ReportWhatWasTakenAgainHoweverManyReportsWait) {
  tReceiver receiver(m_Remote);
  CServiceList list(&receiver);
  ASSERT_TRUE(list.Add(Share("169.254.3.7:/media/sda1")));
  ASSERT_TRUE(list.Add(Share("169.254.3.8:/media/sdb1")));
  m_Messages.ClearPending();
  FillQueue(tRemoteVolumes::kMaxPendingReports);
  const tCapturedLog log(kLogWarning);
  m_Remote.Republish(list);
  EXPECT_EQ(m_Messages.PendingCount(), tRemoteVolumes::kMaxPendingReports + 2);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_FALSE(list.Add(Share("169.254.3.9:/media/new"))) << "a new one waits again";
}

TEST_F(RemoteVolumes, HandThePeersAddressToThePublisher) {
  const tCapturedLog log;
  m_Remote.PeerFound("169.254.3.7");
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogInfo,
                                   "CServicePublisher::SetPeerIpAddress Discovered peer IP "
                                   "address: 169.254.3.7"}));
}

}  // namespace
