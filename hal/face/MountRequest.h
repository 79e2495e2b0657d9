#pragma once

#include <string>
#include <variant>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/face/VolumeError.h"

// What a client asks of Mount, checked as far as that is the same for every source of devices.

namespace hal {

struct MountRequest {
  std::string name;    // of the directory under /media; empty: the service chooses one
  std::string fstype;  // never empty, but for a remount
  std::vector<std::string> options;  // taken apart at commas; all of them valid, but for a remount
  bool readOnly = false;             // "ro" was given and "rw" was not
  bool readWrite = false;            // "rw" was given
  bool remount = false;              // "remount" was given, and the volume is mounted
};

/// Mount's arguments, which are untrusted, as a request; or the first fault, looked for in this
/// order: InvalidMountpoint (a slash or a line feed in the name), CannotRemount (not mounted),
/// AlreadyMounted, InvalidMountOption (not in the volume's volume.mount.valid_options, if it has
/// the property), UnknownFilesystemType (neither the argument nor the volume tells it).
std::variant<MountRequest, VolumeError> CheckMount(const Device& volume, const std::string& name,
                                                   const std::string& fstype,
                                                   const std::vector<std::string>& options);

/// Options of one call, taken apart at commas.
std::vector<std::string> Flatten(const std::vector<std::string>& options);

/// Whether the text can be a directory's name: not empty, neither "." nor "..", without slash or
/// control character, at most 255 bytes.
bool IsDirectoryName(const std::string& name);

/// The name of the directory for a volume whose mount names none: the label if it can be one, else
/// "disk"; number 1 and up are appended ("disk-1"), 0 is not.
std::string DefaultName(const Device& volume, int number);

}  // namespace hal
