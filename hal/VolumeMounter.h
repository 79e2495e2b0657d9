#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/DeviceTree.h"
#include "hal/Tape.h"

namespace halsim {

struct MountSettings {
  std::string root = "/";      // stands for / where directories are made
  std::string mountCommand;    // empty: only the directory is made
  std::string unmountCommand;  // empty: only the directory is removed
};

/// Why a mount or unmount was refused: the last part of the error's name, and a text for people.
struct VolumeError {
  std::string name;
  std::string text;
};

/// Mounts and unmounts the volumes of a tree: directory, command, and the three properties of the
/// mount state. Commands are waited for. Nothing is returned on success.
class VolumeMounter {
 public:
  using Outcome = std::optional<VolumeError>;

  VolumeMounter(DeviceTree& tree, Tape& tape, MountSettings settings);

  // What clients of the service ask for. All arguments are theirs and untrusted.
  Outcome Mount(const std::string& udi, const std::string& name, const std::string& fstype,
                const std::vector<std::string>& options);
  Outcome Unmount(const std::string& udi, const std::vector<std::string>& options);
  /// Unmounts all volumes of the volume's disk and takes their objects away.
  Outcome Eject(const std::string& udi);

  // What somebody else on the machine does.
  /// `place` is an absolute path or a name under /media; empty: the device node's last part.
  Outcome MountOutside(const std::string& udi, const std::string& place, bool readOnly);
  Outcome UnmountOutside(const std::string& udi);
  Outcome RemountOutside(const std::string& udi, bool readOnly);
  /// For a device that is gone: whatever is mounted is taken off, nothing is refused. True when
  /// something was mounted.
  bool UnmountLazily(const std::string& udi);

 private:
  /// What was really done for a volume, as opposed to what its properties say.
  struct Record {
    std::string directory;  // root included
    bool madeDirectory;
    bool byService;
  };
  struct Plan {
    std::string mountPoint;  // as clients see it
    std::string fstype;
    std::vector<std::string> options;
    bool readOnly;
    bool byService;
  };

  Outcome CheckOptions(const Device& volume, const std::vector<std::string>& options) const;
  std::optional<std::string> ChooseName(const Device& volume, const std::string& wanted) const;
  Outcome CarryOut(const Device& volume, const Plan& plan);
  Outcome Remount(const Device& volume, bool readOnly);
  bool TakeOff(const Device& volume, const std::string& options);
  bool RunFor(const Device& volume, const std::string& command, const std::string& directory,
              const std::string& fstype, const std::string& options) const;
  void SetState(const Device& volume, const std::string& mountPoint, bool mounted, bool readOnly);
  std::string OnDisk(const std::string& path) const;

  DeviceTree& tree_;
  Tape& tape_;
  const MountSettings settings_;
  std::map<std::string, Record> records_;
};

/// Whether the service calls the volume mounted.
bool IsMounted(const Device& volume);

}  // namespace halsim
