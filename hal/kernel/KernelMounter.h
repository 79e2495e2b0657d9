#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/face/IVolumeActions.h"
#include "hal/kernel/BlockDevices.h"
#include "hal/kernel/Mounts.h"

namespace halkernel {

/// Mounts and unmounts in earnest: directories under /media, mount(8) as a child, umount2(2) in a
/// thread. Whether a volume is mounted is never concluded from what was asked for: the mount table
/// tells, and so clients hear of a mount that came about late as of anybody else's.
///
/// A directory that was made for a mount is removed when nothing is mounted there any more, whoever
/// unmounted it. A volume is the service's own to unmount if it is mounted at such a directory.
///
/// Main thread only.
class KernelMounter : public hal::IVolumeActions, public IMediumActions {
 public:
  /// Nothing is owned. `refresh` reads the mount table and brings the tree up to date; `onChange`
  /// runs when `Directories` has changed.
  KernelMounter(hal::DeviceTree& tree, const IMountSource& mounts, std::function<void()> refresh,
                std::function<void()> onChange);

  /// The directories under /media that were made and are still there.
  std::vector<std::string> Directories() const {
    return {directories_.begin(), directories_.end()};
  }
  /// Takes over those of a service before a restart.
  void Restore(const std::vector<std::string>& directories);
  /// Removes the directories where nothing is mounted any more. To be called when the mount table
  /// has changed.
  void RemoveUnused();

  // IVolumeActions
  /// UnknownFailure also while an earlier mount of this volume is under way. A mount that takes
  /// longer than 20 s is answered so, and goes on.
  void Mount(const std::string& udi, const hal::MountRequest& request, Done done) override;
  void Unmount(const std::string& udi, bool lazy, Done done) override;
  /// A device without an eject mechanism is only unmounted.
  void Eject(const std::string& udi, Done done) override;

  // IMediumActions
  void Detach(const std::string& mountPoint) override;
  void Reopen(const std::string& node) override;

 private:
  using Outcome = std::optional<hal::VolumeError>;

  /// A mount that is under way.
  struct Job {
    std::string udi;
    std::string success;  // what the log says then
    std::string name;     // of the directory; empty for a remount
    Done done;            // empty once it was answered
  };

  void Remount(const hal::Device& volume, const hal::MountRequest& request, Done done);
  Outcome MakeDirectory(const hal::Device& volume, const std::string& wanted, std::string& name);
  void Start(const std::vector<std::string>& words, std::shared_ptr<Job> job,
             std::function<Outcome(const std::string& output)> outcome);
  Outcome MountOutcome(const Job& job, const std::string& output);
  /// Why the volume cannot be unmounted; nullopt: it can, at `mountPoint`.
  Outcome CheckUnmount(const std::string& udi, std::string& mountPoint) const;
  bool IsMountPoint(const std::string& path) const;
  bool IsOwn(const std::string& mountPoint) const;
  void RemoveDirectory(const std::string& name);

  hal::DeviceTree& tree_;
  const IMountSource& mounts_;
  const std::function<void()> refresh_;
  const std::function<void()> onChange_;
  std::set<std::string> directories_;
  std::set<std::string> volumesUnderWay_;      // object paths
  std::set<std::string> directoriesUnderWay_;  // names under /media
};

}  // namespace halkernel
