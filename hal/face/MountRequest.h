#pragma once

#include <string>
#include <variant>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/face/VolumeError.h"

// The request in a call of Mount, with the checks that are the same for every source of devices.

namespace hal {

struct MountRequest {
  std::string name;    // of the directory under /media; if empty, the service chooses one
  std::string fstype;  // never empty, except for a remount
  std::vector<std::string> options;  // split at commas; all of them valid, except for a remount
  bool readOnly = false;             // "ro" was given and "rw" was not
  bool readWrite = false;            // "rw" was given
  bool remount = false;              // "remount" was given, and the volume is mounted
};

/// Mount's arguments, which are untrusted, as a request; or the first fault, checked in this
/// order: InvalidMountpoint (a slash or a line feed in the name), CannotRemount (not mounted),
/// AlreadyMounted, InvalidMountOption (not in the volume's volume.mount.valid_options, if it has
/// the property), UnknownFilesystemType (neither the argument nor the volume has one).
std::variant<MountRequest, VolumeError> CheckMount(const Device& volume, const std::string& name,
                                                   const std::string& fstype,
                                                   const std::vector<std::string>& options);

/// The options of one call, split at commas.
std::vector<std::string> Flatten(const std::vector<std::string>& options);

/// Whether the text is a valid directory name: not empty, neither "." nor "..", without slashes and
/// control characters, at most 255 bytes.
bool IsDirectoryName(const std::string& name);

/// The directory name for a volume if the request has none: the label if it is a valid one, else
/// "disk". A number from 1 up is appended ("disk-1"), 0 is not.
std::string DefaultName(const Device& volume, int number);

}  // namespace hal
