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

// All disks of the machine: takes in what udev and the mount table report and keeps the device tree
// up to date. Cold plug, hot plug, lost events and restart are one operation: describe a disk from
// what was reported, compare with the tree, change the tree.

namespace halkernel {

/// What the kernel is asked to do when a medium is gone.
class IMediumActions {
 public:
  virtual ~IMediumActions() = default;
  /// Detaches what is mounted there, even while in use, and removes the directory if the service
  /// made it. Logs a failure.
  virtual void Detach(const std::string& mountPoint) = 0;
  /// Opens the disk once, which makes the kernel drop the partitions of the previous medium.
  virtual void Reopen(const std::string& node) = 0;
};

/// Main thread only.
class BlockDevices : public IUdevListener {
 public:
  using Enumerate = std::function<std::vector<BlockFacts>()>;

  /// Owns none of them. `enumerate` returns every disk and partition that is present.
  BlockDevices(hal::DeviceTree& tree, Reconciler& reconciler, IMountSource& mounts,
               IMediumActions& actions, Enumerate enumerate);

  /// Before the service's name is owned: examines everything and fills the tree silently, with the
  /// objects announced before a restart or, if there was none, with all that are present.
  void Prepare(const std::optional<State>& before);
  /// Once the name is owned: announces the difference from the state before the restart, and
  /// detaches media that have gone meanwhile.
  void Announce();

  /// Reads the mount table and reports changes to clients.
  void RefreshMounts();
  /// The mount source has read its table again: reports changes to clients.
  void MountsChanged();

  // IUdevListener
  void BlockDeviceReported(const BlockFacts& facts) override;
  void Gone(const std::string& sysfsPath, bool written) override;
  void StartOver() override;

 private:
  struct Disk {
    DiskState state;
    std::vector<WantedObject> shown;
    const char* leftOut = nullptr;  // the reason, as logged
    bool served = false;            // has had objects
  };

  void TakeInAll();
  void Show(const std::string& path, Disk& disk);
  void ChangeMedium(const std::string& path, Disk& disk, const DiskState& before);
  void DiskGone(std::map<std::string, Disk>::iterator disk, bool written);
  void DetachAll(const Disk& disk, const DiskState& state);
  void Detach(const Disk& disk, const BlockFacts& facts);
  void ReportMovedMounts();
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
