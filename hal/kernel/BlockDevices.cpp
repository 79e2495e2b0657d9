#include "hal/kernel/BlockDevices.h"

#include <set>
#include <utility>
#include <variant>

#include "hal/kernel/Log.h"

namespace halkernel {
namespace {

std::string ShortName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string DirectoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

/// True of a disk on USB whose devices above it were not all found, which is no property of it.
bool LacksItsChain(const DiskState& state) {
  return state.disk && std::holds_alternative<std::monostate>(state.disk->facts.chain) &&
         state.disk->facts.sysfsPath.find("/usb") != std::string::npos;
}

bool SameKeys(const std::vector<WantedObject>& left, const std::vector<WantedObject>& right) {
  if (left.size() != right.size()) return false;
  for (std::size_t at = 0; at < left.size(); ++at) {
    if (left[at].key != right[at].key) return false;
  }
  return true;
}

}  // namespace

BlockDevices::BlockDevices(hal::DeviceTree& tree, Reconciler& reconciler, IMountSource& mounts,
                           IMediumActions& actions, Enumerate enumerate)
    : tree_(tree),
      reconciler_(reconciler),
      mounts_(mounts),
      actions_(actions),
      enumerate_(std::move(enumerate)) {}

void BlockDevices::Prepare(const std::optional<State>& before) {
  mounts_.Refresh();
  index_ = MountIndex(mounts_.Current());
  TakeInAll();
  const hal::DeviceTree::Silence silence(tree_);
  if (before) reconciler_.Restore(before->objects);
  restarted_ = before.has_value();
  for (auto& [path, disk] : disks_) {
    if (restarted_) {
      reconciler_.Resemble(Describe(disk.state, index_));
    } else {
      Show(path, disk);
    }
  }
}

void BlockDevices::Announce() {
  if (!restarted_) return;
  DetachLeftovers();
  reconciler_.DropLeftovers();
  for (auto& [path, disk] : disks_) Show(path, disk);
}

void BlockDevices::RefreshMounts() {
  if (mounts_.Refresh()) MountsChanged();
}

void BlockDevices::MountsChanged() {
  index_ = MountIndex(mounts_.Current());
  for (auto& [path, disk] : disks_) {
    const std::vector<WantedObject> wanted = Describe(disk.state, index_);
    if (!SameKeys(wanted, disk.shown)) {
      Show(path, disk);
      continue;
    }
    for (const WantedObject& object : wanted) {
      const auto* volume = std::get_if<WantedVolume>(&object.facts);
      if (volume != nullptr) reconciler_.SetMount(object.key, volume->mount);
    }
  }
}

void BlockDevices::BlockDeviceReported(const BlockFacts& facts) {
  RefreshMounts();
  Disk& disk = disks_[facts.diskPath];
  const DiskState before = disk.state;
  switch (TakeIn(disk.state, facts)) {
    case Intake::Obsolete:
      Log(LOG_DEBUG, ShortName(facts.sysfsPath) + ": an event of a medium that is gone");
      return;
    case Intake::NewMedium:
      ChangeMedium(facts.diskPath, disk, before);
      return;
    case Intake::Taken:
      Show(facts.diskPath, disk);
      return;
  }
}

/// What is mounted of the old medium keeps the kernel from looking at the new one.
void BlockDevices::ChangeMedium(const std::string& path, Disk& disk, const DiskState& before) {
  Log(LOG_INFO, ShortName(path) + ": the medium was changed");
  bool hadVolumes = false;
  for (const WantedObject& object : disk.shown) {
    hadVolumes = hadVolumes || std::holds_alternative<WantedVolume>(object.facts);
  }
  DetachAll(disk, before);
  Show(path, disk);
  if (hadVolumes && disk.state.disk) actions_.Reopen(disk.state.disk->facts.node);
  ReportMovedMounts();
}

void BlockDevices::Gone(const std::string& sysfsPath, bool written) {
  RefreshMounts();
  if (const auto disk = disks_.find(sysfsPath); disk != disks_.end()) {
    DiskGone(disk, written);
    return;
  }
  const auto disk = disks_.find(DirectoryOf(sysfsPath));
  if (disk == disks_.end()) return;
  const auto partition = disk->second.state.partitions.find(sysfsPath);
  if (partition == disk->second.state.partitions.end()) return;
  // What is left of the disk that the system ran from is not to be served either.
  if (written || RunsTheSystem(partition->second.facts, index_)) {
    partition->second.withdrawn = true;
  } else {
    if (disk->second.served) Detach(disk->second, partition->second.facts);
    disk->second.state.partitions.erase(partition);
  }
  Show(disk->first, disk->second);
  ReportMovedMounts();
}

void BlockDevices::DiskGone(std::map<std::string, Disk>::iterator disk, bool written) {
  DiskState& state = disk->second.state;
  if (written) {
    if (state.disk) state.disk->withdrawn = true;
    Show(disk->first, disk->second);
    return;
  }
  DetachAll(disk->second, state);
  reconciler_.Show(disk->first, {});
  disks_.erase(disk);
  ReportMovedMounts();
}

void BlockDevices::StartOver() {
  const std::vector<BlockFacts> present = enumerate_();
  std::set<std::string> paths;
  for (const BlockFacts& facts : present) paths.insert(facts.sysfsPath);
  std::vector<std::string> gone;
  for (const auto& [path, disk] : disks_) {
    if (!paths.contains(path)) gone.push_back(path);
    for (const auto& [partition, reported] : disk.state.partitions) {
      if (!paths.contains(partition)) gone.push_back(partition);
    }
  }
  for (const std::string& path : gone) Gone(path, false);
  for (const BlockFacts& facts : present) BlockDeviceReported(facts);
}

void BlockDevices::TakeInAll() {
  for (const BlockFacts& facts : enumerate_()) TakeIn(disks_[facts.diskPath].state, facts);
}

void BlockDevices::Show(const std::string& path, Disk& disk) {
  const char* leftOut = LeftOut(disk.state, index_);
  const bool withdrawn = disk.state.disk && disk.state.disk->withdrawn;
  if (leftOut != nullptr && leftOut != disk.leftOut && !withdrawn) {
    if (LacksItsChain(disk.state)) {
      Log(LOG_WARNING, ShortName(path) + " is not served: a device above it cannot be read");
    } else {
      Log(LOG_DEBUG, ShortName(path) + " is not served: " + leftOut);
    }
  }
  disk.leftOut = leftOut;
  disk.shown = Describe(disk.state, index_);
  disk.served = disk.served || !disk.shown.empty();
  reconciler_.Show(path, disk.shown);
}

void BlockDevices::DetachAll(const Disk& disk, const DiskState& state) {
  if (!disk.served) return;
  for (const auto& [path, reported] : state.partitions) Detach(disk, reported.facts);
  if (state.disk) Detach(disk, state.disk->facts);
}

/// Clients hear that its volume is unmounted before the volume goes.
void BlockDevices::Detach(const Disk& disk, const BlockFacts& facts) {
  const std::vector<MountEntry> places = index_.All(facts.number, facts.node);
  if (places.empty()) return;
  for (auto place = places.rbegin(); place != places.rend(); ++place) {
    Log(LOG_INFO, ShortName(facts.node) + ": gone while mounted at " + place->target);
    actions_.Detach(place->target);
  }
  for (const WantedObject& object : disk.shown) {
    const auto* volume = std::get_if<WantedVolume>(&object.facts);
    const bool here = volume != nullptr && volume->volume.sysfsPath == facts.sysfsPath;
    if (here) reconciler_.SetMount(object.key, {});
  }
  mountsMoved_ = mounts_.Refresh() || mountsMoved_;
  index_ = MountIndex(mounts_.Current());
}

/// What else the table showed when it was read in between.
void BlockDevices::ReportMovedMounts() {
  if (std::exchange(mountsMoved_, false)) MountsChanged();
}

void BlockDevices::DetachLeftovers() {
  for (const KeptObject& kept : reconciler_.Leftovers()) {
    if (!kept.mount.mounted) continue;
    for (const MountEntry& entry : mounts_.Current().entries) {
      // Source and place: the same node may be another device by now, mounted elsewhere.
      if (entry.source != kept.node || entry.target != kept.mount.place) continue;
      Log(LOG_INFO, ShortName(kept.node) + ": gone while mounted at " + entry.target);
      actions_.Detach(entry.target);
      reconciler_.SetMount(kept.key, {});
      ReopenDiskOf(kept.node);
      break;
    }
  }
  mounts_.Refresh();
  index_ = MountIndex(mounts_.Current());
}

void BlockDevices::ReopenDiskOf(const std::string& node) {
  for (const auto& [path, disk] : disks_) {
    for (const auto& [partition, reported] : disk.state.partitions) {
      if (reported.facts.node == node && disk.state.disk) {
        actions_.Reopen(disk.state.disk->facts.node);
      }
    }
  }
}

}  // namespace halkernel
