#include "volumes/MediaLinks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string_view>

#include "frame/FileSystem.h"

namespace {

std::string UsbLinkName(const std::string& mountPoint) {
  constexpr std::string_view kDiskPrefix = "/sd";
  std::string name = "USB Memory Card";
  const size_t disk = mountPoint.rfind(kDiskPrefix);
  if (disk == std::string::npos) return name;
  std::string device = mountPoint.substr(disk + kDiskPrefix.size());
  std::transform(device.begin(), device.end(), device.begin(), [](unsigned char character) {
    return static_cast<char>(std::toupper(character));
  });
  return name + " " + device;
}

bool IsDanglingLink(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) &&
         stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

}  // namespace

std::string MediaLinkName(const std::string& busType, const std::string& mountPoint,
                          int32_t mmcHost, int mmcHostIndex) {
  if (busType == "usb") return UsbLinkName(mountPoint);
  if (busType == "mmc" && mmcHostIndex == 1) return "Memory Card";
  if (busType == "mmc" && mmcHostIndex == 2) return "Memory Card - " + std::to_string(mmcHost);
  return "";
}

std::string MediaLinkTarget(const std::string& mountPoint) {
  const size_t prefixLength = std::string_view(kMediaPrefix).size();
  return mountPoint.substr(std::min(prefixLength, mountPoint.size()));
}

void RemoveDanglingLinks(const std::string& directory) {
  const std::string prefix = directory + "/";
  for (const std::string& name : DirectoryEntries(directory)) {
    const std::string path = prefix + name;
    if (IsDanglingLink(path)) unlink(path.c_str());
  }
}
