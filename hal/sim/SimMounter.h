#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/face/IVolumeActions.h"
#include "hal/sim/DeviceIndex.h"
#include "hal/sim/LineOutput.h"

namespace halsim {

struct MountSettings {
  std::string root = "/";      // stands for / where directories are made
  std::string mountCommand;    // empty: only the directory is made
  std::string unmountCommand;  // empty: only the directory is removed
};

/// Mounts and unmounts the volumes of a tree: directory, command, and the three properties of the
/// mount state. Waits for its commands, so that every call is answered at once.
class SimMounter : public hal::IVolumeActions {
 public:
  using Outcome = std::optional<hal::VolumeError>;

  SimMounter(hal::DeviceTree& tree, DeviceIndex& index, LineOutput& output, MountSettings settings);

  // IVolumeActions: requests of the service's clients.
  void Mount(const std::string& udi, const hal::MountRequest& request, Done done) override;
  void Unmount(const std::string& udi, bool lazy, Done done) override;
  /// Unmounts all volumes of the volume's disk and removes their objects.
  void Eject(const std::string& udi, Done done) override;

  // Actions of somebody else on the machine.
  /// `place` is an absolute path or a name under /media; empty: the device node's last part.
  Outcome MountOutside(const std::string& udi, const std::string& place, bool readOnly);
  Outcome UnmountOutside(const std::string& udi);
  Outcome RemountOutside(const std::string& udi, bool readOnly);
  /// For a device that is gone: unmounts whatever is mounted and refuses nothing. Returns true if
  /// something was mounted.
  bool UnmountLazily(const std::string& udi);

 private:
  /// What has actually been done for a volume, as opposed to what its properties say.
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

  Outcome MountAsAsked(const std::string& udi, const hal::MountRequest& request);
  Outcome UnmountAsAsked(const std::string& udi, bool lazy);
  Outcome EjectAsAsked(const std::string& udi);
  std::optional<std::string> ChooseName(const hal::Device& volume, const std::string& wanted) const;
  Outcome CarryOut(const hal::Device& volume, const Plan& plan);
  Outcome Remount(const hal::Device& volume, bool readOnly);
  bool TakeOff(const hal::Device& volume, const std::string& options);
  bool RunFor(const hal::Device& volume, const std::string& command, const std::string& directory,
              const std::string& fstype, const std::string& options) const;
  void SetState(const hal::Device& volume, const std::string& mountPoint, bool mounted,
                bool readOnly);
  std::string OnDisk(const std::string& path) const;
  bool IsWriteProtected(const hal::Device& volume) const {
    return index_.Of(volume.udi).writeProtected;
  }

  hal::DeviceTree& tree_;
  DeviceIndex& index_;
  LineOutput& output_;
  const MountSettings settings_;
  std::map<std::string, Record> records_;
};

}  // namespace halsim
