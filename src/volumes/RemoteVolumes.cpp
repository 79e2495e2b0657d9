// The shares of other units, as the service browser and its list report them to tVoldrake. Runs on
// their threads, with the list's lock held, and keeps nothing: the list is the only record.

#include "frame/Log.h"
#include "frame/NfsRoot.h"
#include "frame/Text.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/tMessageClient.h"
#include "sharing/NfsData.h"
#include "sharing/ServicePublisher.h"
#include "volumes/tVoldrake.h"

namespace {

/// While this many reports wait for an absent application, further shares wait for their next
/// announcement instead: a network that makes up shares must not fill the memory.
constexpr size_t kMaxPendingReports = 4096;

}  // namespace

bool tVoldrake::OnServiceAdded(const NFS_DATA_T& share) {
  if (!m_Republishing && _TooManyReportsWait()) return false;
  std::string mountPath;
  if (!m_NfsMounter.MountRemoteShare(share, mountPath)) return false;
  // Shares of units other than the peer are foreign cards, whatever they announce.
  DataSourceInfo arrival{.arrival = true,
                         .memoryCard = !share.fromPeer || !share.key.empty(),
                         .remote = !share.fromPeer,
                         .readOnly = !share.fromPeer || share.readOnly,
                         .path = MapNfsRootPath(mountPath),
                         .friendlyName = share.friendlyName,
                         .key = share.key,
                         .contentId = share.contentId,
                         .serialNumber = share.serialNumber};
  m_pMessageClient->PublishDataSource(arrival);
  return true;
}

bool tVoldrake::_TooManyReportsWait() {
  const bool refused = m_pMessageClient->PendingCount() >= kMaxPendingReports;
  if (refused && !m_SharesRefused) {
    Log("OnServiceAdded: " + std::to_string(kMaxPendingReports) +
            " messages wait for the application, further shares are refused",
        kLogWarning);
  }
  m_SharesRefused = refused;
  return refused;
}

void tVoldrake::OnServiceRemoved(const NFS_DATA_T& share) {
  std::string mountPath;
  m_NfsMounter.UnmountRemoteShare(share, mountPath);
  DataSourceInfo removal{.path = MapNfsRootPath(mountPath)};
  m_pMessageClient->PublishDataSource(removal);
}

void tVoldrake::OnPeerFound(const std::string& address) {
  if (m_pServicePublisher) m_pServicePublisher->SetPeerIpAddress(address);
}
