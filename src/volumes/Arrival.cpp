// The arrival of a local volume: tVoldrake's way from a device of the hardware service to an entry
// in the volume list.

#include <algorithm>

#include "frame/Assert.h"
#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "messaging/tMessageClient.h"
#include "sharing/ServicePublisher.h"
#include "storage/MountPointNameManager.h"
#include "storage/tHalManager.h"
#include "volumes/FriendlyName.h"
#include "volumes/MediaLinks.h"
#include "volumes/Reports.h"
#include "volumes/tVoldrake.h"

void tVoldrake::_DeviceAdded(const std::string& udi) {
  Log("_DeviceAdded: " + Printable(udi), kLogDebug);
  if (!m_pHalManager->isVolumeUdi(udi)) {
    Log("_DeviceAdded: Invalid Volume String", kLogDebug);
    return;
  }
  Log("_DeviceAdded: Volume Found", kLogInfo);
  HalVolumeInfo info;
  info.VolumeId = udi;
  if (!m_pHalManager->GetVolumeInfo(info)) return;
  if (_IsInExclusionList(info)) return;
  std::string name;
  const tMountResult result = _MountOrRegister(info, "DeviceAdded: failed to remove ", name);
  const bool RetVal = result != tMountResult::kNameless;
  if (!RetVal) Log("_DeviceAdded: GetNextMountPointName failed", kLogError);
  VOLDRAKE_ASSERT(RetVal == true);
  const std::string request = Printable(udi + " " + name + " " + info.FileSystemType);
  if (result == tMountResult::kAgreed) {
    Log("_DeviceAdded: MountVolume success: " + request, kLogInfo);
  } else if (result == tMountResult::kRefused) {
    Log("_DeviceAdded: MountVolume failed: " + request, kLogError);
  }
}

tVoldrake::tMountResult tVoldrake::_MountOrRegister(const HalVolumeInfo& info,
                                                    const char* leftoverWarning,
                                                    std::string& name) {
  if (info.IsMounted) {
    _DeviceMounted(info.VolumeId);
    return tMountResult::kRegistered;
  }
  if (!m_pMountPointNameManager->GetNextMountPointName(name, info.BlockDevice)) {
    return tMountResult::kNameless;
  }
  if (IsLeftover(name) &&
      RemoveDirectory(kMediaPrefix + name, true, tLinkPolicy::kDoNotFollow) != 0) {
    Log(leftoverWarning + (kMediaPrefix + Printable(name)), kLogWarning);
  }
  return m_pHalManager->mountVolume(info.VolumeId.c_str(), name, info.FileSystemType)
             ? tMountResult::kAgreed
             : tMountResult::kRefused;
}

void tVoldrake::_DeviceMounted(const std::string& udi) {
  Log("_DeviceMounted: " + Printable(udi), kLogInfo);
  HalVolumeInfo info;
  info.VolumeId = udi;
  if (!m_pHalManager->GetVolumeInfo(info)) {
    Log("_DeviceMounted: Failed to get Volume Info", kLogError);
    return;
  }
  _AddMountPoint(info, _FindUsbMapEntry(info));
}

void tVoldrake::_AddMountPoint(HalVolumeInfo& info, const std::optional<UsbMapMatch>& match) {
  // Between two queries a volume may be unmounted; it then has no mount point to export or report.
  if (!info.IsMounted || info.MountPoint.empty()) {
    Log("_AddMountPoint: Volume not mounted: " + Printable(info.VolumeId), kLogDebug);
    return;
  }
  _RefreshContentId();
  _RefreshSerialNumber();
  const bool registered = std::any_of(
      m_Volumes.begin(), m_Volumes.end(),
      [&info](const HalVolumeInfo& volume) { return volume.VolumeId == info.VolumeId; });
  if (registered) {
    Log("_AddMountPoint: Volume already in list: " + Printable(info.VolumeId), kLogDebug);
    return;
  }
  m_pServicePublisher->AddServiceNFS(info.MountPoint, MEDIA_TYPE_T::kVolume, info.Cid,
                                     m_ContentId.Text(), m_SerialNumber.Text(),
                                     FriendlyName(info, match), info.ReadOnly);
  CreateMediaLink(info, m_MmcHostIndex);
  _PublishArrival(info, FriendlyName(info, match));
  m_Volumes.push_back(info);
  _PrintHalVolumeInfo(info);
}

void tVoldrake::_PublishArrival(const HalVolumeInfo& info, const std::string& friendlyName) {
  DataSourceInfo arrival = ArrivalOf(info, friendlyName, m_ContentId.Text(), m_SerialNumber.Text());
  m_pMessageClient->PublishDataSource(arrival);
}
