#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/kernel/Media.h"
#include "hal/kernel/Mounts.h"
#include "hal/kernel/Reconciler.h"
#include "hal/kernel/StateFile.h"
#include "hal/kernel/UdevWatch.h"

// All disks of the machine: what udev and the mount table tell of them goes in here, and the device
// tree follows. Cold plug, hot plug, lost events and restart are one operation: describe a disk
// from what was told of it, compare with the tree, change the tree.

namespace halkernel {

/// What the kernel is asked to do about a medium that is gone.
class IMediumActions {
 public:
  virtual ~IMediumActions() = default;
  /// Detaches what is mounted there, whoever uses it, and removes the directory if the service made
  /// it. A failure is logged.
  virtual void Detach(const std::string& mountPoint) = 0;
  /// Opens the disk once, at which the kernel drops partitions of the medium before.
  virtual void Reopen(const std::string& node) = 0;
};

/// Main thread only.
class BlockDevices : public IUdevListener {
 public:
  using Enumerate = std::function<std::vector<BlockFacts>()>;

  /// Nothing is owned. `enumerate` gives every disk and partition that is there.
  BlockDevices(hal::DeviceTree& tree, Reconciler& reconciler, IMountSource& mounts,
               IMediumActions& actions, Enumerate enumerate);

  /// Before the service's name is owned: looks at everything and fills the tree silently, with the
  /// objects that were announced before a restart, or without such with all that are there.
  void Prepare(const std::optional<State>& before);
  /// Once the name is owned: announces the difference to what was there before the restart. Media
  /// that went meanwhile are detached.
  void Announce();

  /// Reads the mount table and tells clients what has changed.
  void RefreshMounts();
  /// The mount source has read its table anew: tells clients what has changed.
  void MountsChanged();

  // IUdevListener
  void Told(const BlockFacts& facts) override;
  void Gone(const std::string& sysfsPath, bool written) override;
  void StartOver() override;

 private:
  struct Disk {
    DiskState state;
    std::vector<WantedObject> shown;
    const char* leftOut = nullptr;  // the reason that was logged
    bool served = false;            // had objects at some time
  };

  void TakeInAll();
  void Show(const std::string& path, Disk& disk);
  void ChangeMedium(const std::string& path, Disk& disk, const DiskState& before);
  void DiskGone(std::map<std::string, Disk>::iterator disk, bool written);
  void DetachAll(const Disk& disk, const DiskState& state);
  void Detach(const Disk& disk, const BlockFacts& facts);
  void TellMovedMounts();
  void DetachLeftovers();
  void ReopenDiskOf(const std::string& node);

  hal::DeviceTree& tree_;
  Reconciler& reconciler_;
  IMountSource& mounts_;
  IMediumActions& actions_;
  const Enumerate enumerate_;
  MountIndex index_;
  std::map<std::string, Disk> disks_;  // by sysfs path
  bool restarted_ = false;
  bool mountsMoved_ = false;
};

}  // namespace halkernel
