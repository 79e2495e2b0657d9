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

/// Really mounts and unmounts: with directories under /media, mount(8) as a child process, and
/// umount2(2) in a thread. Only the mount table says whether a volume is mounted, never the outcome
/// of a request, so that clients learn of a late mount as they do of anybody else's.
///
/// A directory made for a mount is removed once nothing is mounted there any more, whoever
/// unmounted it. The service unmounts only volumes that are mounted at such a directory.
///
/// Main thread only.
class KernelMounter : public hal::IVolumeActions, public IMediumActions {
 public:
  /// Owns none of them. `refresh` reads the mount table and updates the tree; `onChange` runs when
  /// `Directories` has changed.
  KernelMounter(hal::DeviceTree& tree, const IMountSource& mounts, std::function<void()> refresh,
                std::function<void()> onChange);

  /// The directories under /media that were made and still exist.
  std::vector<std::string> Directories() const {
    return {directories_.begin(), directories_.end()};
  }
  /// Takes over the directories that were made before a restart.
  void Restore(const std::vector<std::string>& directories);
  /// Removes the directories at which nothing is mounted any more. To be called whenever the mount
  /// table has changed.
  void RemoveUnused();

  // IVolumeActions
  /// Answers UnknownFailure also while an earlier mount of this volume is in progress, and after
  /// 20 s, while the mount continues.
  void Mount(const std::string& udi, const hal::MountRequest& request, Done done) override;
  void Unmount(const std::string& udi, bool lazy, Done done) override;
  /// A device without an eject mechanism is only unmounted.
  void Eject(const std::string& udi, Done done) override;

  // IMediumActions
  void Detach(const std::string& mountPoint) override;
  void Reopen(const std::string& node) override;

 private:
  using Outcome = std::optional<hal::VolumeError>;

  /// A mount in progress.
  struct Job {
    std::string udi;
    std::string success;  // the log line for it
    std::string name;     // of the directory; empty for a remount
    Done done;            // empty once answered
  };

  void Remount(const hal::Device& volume, const hal::MountRequest& request, Done done);
  int MakeOwnDirectory(const std::string& name);
  Outcome MakeDirectory(const hal::Device& volume, const std::string& wanted, std::string& name);
  void Start(const std::vector<std::string>& words, const std::shared_ptr<Job>& job,
             std::function<Outcome(const std::string& output)> outcome);
  Outcome MountOutcome(const Job& job, const std::string& output);
  /// Why the volume cannot be unmounted; nullopt if it can, at `mountPoint`.
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
