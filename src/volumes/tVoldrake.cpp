#include "volumes/tVoldrake.h"

#include "frame/Assert.h"
#include "frame/ConfigManager.h"
#include "messaging/tMessageClient.h"
#include "sharing/ServiceBrowser.h"
#include "sharing/ServicePublisher.h"
#include "storage/MountPointNameManager.h"
#include "storage/tHalManager.h"
#include "volumes/RemoteVolumes.h"

tVoldrake::tVoldrake(tHalManager* pHalManager, ConfigManager* pConfigManager, int32_t clientPort,
                     std::string internalSharePath, std::string peerMac, std::string contentIdFile,
                     std::string serialNumberFile, std::string platformFamily, int mmcHostIndex)
    : m_pHalManager(pHalManager),
      m_pConfigManager(pConfigManager),
      m_InternalSharePath(std::move(internalSharePath)),
      m_PlatformFamily(std::move(platformFamily)),
      m_MmcHostIndex(mmcHostIndex),
      m_ContentId(std::move(contentIdFile)),
      m_SerialNumber(std::move(serialNumberFile)) {
  VOLDRAKE_ASSERT(m_pHalManager != 0);
  VOLDRAKE_ASSERT(m_pConfigManager != 0);
  m_pMountPointNameManager = std::make_unique<CMountPointNameManager>();
  m_pMessageClient = std::make_unique<tMessageClient>(clientPort);
  m_pMessageClient->Start();
  m_pServicePublisher = std::make_unique<CServicePublisher>(m_Exports);
  m_pServicePublisher->Start();
  m_pRemoteVolumes = std::make_unique<tRemoteVolumes>(*m_pMessageClient, *m_pServicePublisher);
  m_pServiceBrowser = std::make_unique<CServiceBrowser>(this, std::move(peerMac));
  VOLDRAKE_ASSERT(m_pServiceBrowser != 0);
  m_pServiceBrowser->Start();
  m_pServicePublisher->StartPublishing();
  _ManualScan();
}

tVoldrake::~tVoldrake() {
  m_pServiceBrowser->StopBrowsing();
  m_pServiceBrowser.reset();
  m_pServicePublisher->Stop();
  m_pServicePublisher.reset();
  m_pMessageClient->StopAfterDelivery();
}

void tVoldrake::Stop() {
  m_pServicePublisher->StopAndWait();
  m_pServiceBrowser->StopBrowsing();
}

void tVoldrake::OnPeerFound(const std::string& address) {
  m_pRemoteVolumes->PeerFound(address);
}

bool tVoldrake::OnServiceAdded(const NFS_DATA_T& share) {
  return m_pRemoteVolumes->Add(share);
}

void tVoldrake::OnServiceRemoved(const NFS_DATA_T& share) {
  m_pRemoteVolumes->Remove(share);
}
