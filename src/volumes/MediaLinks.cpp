#include "volumes/MediaLinks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/HalVolumeInfo.h"

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

void CreateMediaLink(HalVolumeInfo& info, int mmcHostIndex) {
  const std::string name = MediaLinkName(info.BusType, info.MountPoint, info.MMCHost, mmcHostIndex);
  const std::string path = kMediaPrefix + name;
  const std::string target = MediaLinkTarget(info.MountPoint);
  const std::string link = Printable(path + " -> " + target);
  if (name.find('/') != std::string::npos) {
    // It comes from a mount point below a disk's own directory.
    Log("symlink refused: " + link, kLogError);
    Log("symlink error: a link whose name has a slash would not stand in /media itself", kLogError);
    return;
  }
  if (symlink(target.c_str(), path.c_str()) != 0) {
    const int error = errno;
    Log("symlink failed: " + link, kLogError);
    Log(std::string("symlink error: ") + strerror(error), kLogError);
    return;
  }
  Log("symlink: " + link, kLogInfo);
  info.LinkPath = path;
}

void RemoveMediaLink(const HalVolumeInfo& info) {
  if (!info.LinkPath.empty()) unlink(info.LinkPath.c_str());
}

bool IsMediaEntryName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool IsLeftover(const std::string& name) {
  return IsMediaEntryName(name) && IsSameDevice(kMediaDirectory, kMediaPrefix + name);
}

void RemoveDanglingLinks(const std::string& directory) {
  const std::string prefix = directory + "/";
  for (const std::string& name : DirectoryEntries(directory)) {
    const std::string path = prefix + name;
    if (IsDanglingLink(path)) unlink(path.c_str());
  }
}
