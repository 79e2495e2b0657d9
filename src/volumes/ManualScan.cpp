// The volumes that are there without an event: tVoldrake's scan at start-up and after a simulated
// re-insertion.

#include "frame/Assert.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "sharing/ServicePublisher.h"
#include "storage/HalNames.h"
#include "storage/tHalManager.h"
#include "volumes/MediaLinks.h"
#include "volumes/tVoldrake.h"

void tVoldrake::_ManualScan() {
  Log("_ManualScan()", kLogInfo);
  Log("_ManualScan:", kLogDebug);
  RemoveDanglingLinks(kMediaDirectory);
  _RefreshContentId();
  _RefreshSerialNumber();
  for (const std::string& udi : m_pHalManager->findDeviceByCapability(kHalVolumeCapability)) {
    _ScanVolume(udi);
  }
  if (!m_InternalSharePath.empty() && m_pServicePublisher) {
    m_pServicePublisher->AddServiceNFS(m_InternalSharePath, MEDIA_TYPE_T::kInternalDisk, "",
                                       m_ContentId.Text(), m_SerialNumber.Text(),
                                       "Internal HD Charts", true);
  }
}

void tVoldrake::_ScanVolume(const std::string& udi) {
  Log(Printable(udi), kLogDebug);
  if (!m_pHalManager->isVolumeUdi(udi)) {
    Log("_ManualScan: Invalid Volume String", kLogDebug);
    return;
  }
  Log("_ManualScan: found Volume", kLogInfo);
  HalVolumeInfo info;
  info.VolumeId = udi;
  if (!m_pHalManager->GetVolumeInfo(info)) return;
  _PrintHalVolumeInfo(info);
  if (_IsInExclusionList(info)) {
    Log("_ManualScan: Excluded", kLogInfo);
    return;
  }
  // A mount that the service refuses is logged by the call.
  std::string name;
  const bool RetVal =
      _MountOrRegister(info, "ManualScan: failed to remove ", name) != tMountResult::kNameless;
  VOLDRAKE_ASSERT(RetVal == true);
}
