// How a local volume leaves tVoldrake's list, and what a remount means. Nothing here unmounts: the
// hardware service and the kernel have done that, or will.

#include <algorithm>

#include "frame/Log.h"
#include "frame/Text.h"
#include "messaging/tMessageClient.h"
#include "sharing/ServicePublisher.h"
#include "storage/tHalManager.h"
#include "volumes/MediaLinks.h"
#include "volumes/Reports.h"
#include "volumes/tVoldrake.h"

void tVoldrake::_DeviceRemoved(const std::string& udi) {
  const auto entry =
      std::find_if(m_Volumes.begin(), m_Volumes.end(),
                   [&udi](const HalVolumeInfo& volume) { return volume.VolumeId == udi; });
  if (entry == m_Volumes.end()) return;
  Log("_DeviceRemoved: Found Volume in list: ", kLogInfo);
  DataSourceInfo removal = RemovalOf(entry->MountPoint);
  m_pMessageClient->PublishDataSource(removal);
  RemoveMediaLink(*entry);
  m_pServicePublisher->RemoveServiceNFS(entry->MountPoint);
  m_Volumes.erase(entry);
}

void tVoldrake::_UnmountAll() {
  Log("_UnmountAll()", kLogInfo);
  // One sweep removes every other entry; the scan that follows finds the rest registered.
  for (size_t i = 0; i < m_Volumes.size(); ++i) {
    const std::string udi = m_Volumes[i].VolumeId;  // outlives the entry, which is erased
    _DeviceRemoved(udi);
  }
}

void tVoldrake::_DeviceReMountedRo(const std::string& udi) {
  Log("_DeviceReMountedRo: " + Printable(udi), kLogInfo);
  HalVolumeInfo info;
  info.VolumeId = udi;
  if (!m_pHalManager->GetVolumeInfo(info)) return;
  if (_IsInExclusionList(info)) return;
  _FindUsbMapEntry(info);  // for the card's identity; the name and the link do without the match
  _AddMountPoint(info, std::nullopt);
}

void tVoldrake::_DeviceReMountedRw(const std::string& udi) {
  Log("_DeviceReMountedRw: " + Printable(udi), kLogInfo);
}
