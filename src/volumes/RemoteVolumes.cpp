#include "volumes/RemoteVolumes.h"

#include "frame/Log.h"
#include "messaging/tMessageClient.h"
#include "sharing/NfsData.h"
#include "sharing/ServiceList.h"
#include "sharing/ServicePublisher.h"
#include "volumes/Reports.h"

bool tRemoteVolumes::Add(const NFS_DATA_T& share) {
  if (!m_Republishing && _TooManyReportsWait()) return false;
  std::string mountPath;
  if (!m_Mounter.MountRemoteShare(share, mountPath)) return false;
  DataSourceInfo arrival = ArrivalOf(share, mountPath);
  m_Messages.PublishDataSource(arrival);
  return true;
}

bool tRemoteVolumes::_TooManyReportsWait() {
  const bool refused = m_Messages.PendingCount() >= kMaxPendingReports;
  if (refused && !m_SharesRefused) {
    Log("OnServiceAdded: " + std::to_string(kMaxPendingReports) +
            " messages wait for the application, further shares are refused",
        kLogWarning);
  }
  m_SharesRefused = refused;
  return refused;
}

void tRemoteVolumes::Remove(const NFS_DATA_T& share) {
  std::string mountPath;
  m_Mounter.UnmountRemoteShare(share, mountPath);
  DataSourceInfo removal = RemovalOf(mountPath);
  m_Messages.PublishDataSource(removal);
}

void tRemoteVolumes::PeerFound(const std::string& address) const {
  m_Publisher.SetPeerIpAddress(address);
}

void tRemoteVolumes::Republish(CServiceList& shares) {
  m_Republishing = true;
  shares.Republish();
  m_Republishing = false;
}
