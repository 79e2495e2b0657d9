#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "hal/face/MountRequest.h"

// The words of the mount commands; they depend on values alone.

namespace halkernel {

/// The name for "ntfs" on this system: "ntfs3" if the kernel knows that type or there is no helper
/// for "ntfs", else "ntfs". Every other type is unchanged.
/// `filesystems` is the text of /proc/filesystems.
std::string TypeToMount(const std::string& fstype, std::string_view filesystems,
                        bool hasNtfsHelper);

/// mount(8) with its arguments: "nosuid" and "nodev" always, "ro" for a medium that is read-only,
/// then the options of the request.
std::vector<std::string> MountWords(const hal::MountRequest& request, const std::string& fstype,
                                    bool mediumReadOnly, const std::string& node,
                                    const std::string& directory);

/// mount(8) with its arguments for a remount that changes only whether the file system is
/// read-only.
std::vector<std::string> RemountWords(bool readOnly, const std::string& directory);

}  // namespace halkernel
