#include "storage/MountPointNameManager.h"

#include <string_view>

bool CMountPointNameManager::GetNextMountPointName(std::string& name,
                                                   const std::string& blockDevice) {
  constexpr std::string_view kDevicePrefix = "/dev/";
  if (blockDevice.find(kDevicePrefix) == std::string::npos) return false;
  name = blockDevice.substr(kDevicePrefix.size());
  return true;
}
