#include "volumes/Exclusion.h"

#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/HalVolumeInfo.h"
#include "volumes/tVoldrake.h"

tExclusion ExclusionOf(const HalVolumeInfo& info, const tUsbMap& ignored) {
  if (ignored.contains(info.BlockDevice)) return tExclusion::kIgnoredDevice;
  const bool known = info.BusType.find("usb") != std::string::npos ||
                     info.BusType.find("mmc") != std::string::npos;
  return known ? tExclusion::kNone : tExclusion::kOtherBus;
}

bool tVoldrake::_IsInExclusionList(const HalVolumeInfo& info) {
  const tExclusion exclusion = ExclusionOf(info, m_pConfigManager->GetIgnoreMap());
  if (exclusion == tExclusion::kIgnoredDevice) {
    Log("_IsInExclusionList: " + Printable(info.BlockDevice), kLogInfo);
  }
  return exclusion != tExclusion::kNone;
}
