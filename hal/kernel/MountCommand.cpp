#include "hal/kernel/MountCommand.h"

#include "hal/face/Text.h"

namespace halkernel {
namespace {

/// A line is "nodev\tproc" or "\text4".
bool KnowsType(std::string_view filesystems, std::string_view fstype) {
  for (const std::string& line : hal::Split(filesystems, '\n')) {
    const std::size_t tab = line.rfind('\t');
    if (tab != std::string::npos && line.substr(tab + 1) == fstype) return true;
  }
  return false;
}

}  // namespace

std::string TypeToMount(const std::string& fstype, std::string_view filesystems,
                        bool hasNtfsHelper) {
  if (fstype != "ntfs") return fstype;
  return KnowsType(filesystems, "ntfs3") || !hasNtfsHelper ? "ntfs3" : "ntfs";
}

std::vector<std::string> MountWords(const hal::MountRequest& request, const std::string& fstype,
                                    bool mediumReadOnly, const std::string& node,
                                    const std::string& directory) {
  std::vector<std::string> options = {"nosuid", "nodev"};
  for (const std::string& option : request.options) {
    // A read-only medium is mounted read-only whatever is asked for.
    if (mediumReadOnly && option == "rw") continue;
    options.push_back(option);
  }
  if (mediumReadOnly && !hal::Contains(options, "ro")) options.insert(options.begin() + 2, "ro");
  return {"mount", "-t", fstype, "-o", hal::Join(options, ","), "--", node, directory};
}

std::vector<std::string> RemountWords(bool readOnly, const std::string& directory) {
  return {"mount", "-o", std::string("remount,nosuid,nodev,") + (readOnly ? "ro" : "rw"), "--",
          directory};
}

}  // namespace halkernel
