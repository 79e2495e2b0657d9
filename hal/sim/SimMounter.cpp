#include "hal/sim/SimMounter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"
#include "hal/face/Text.h"
#include "hal/sim/Quoting.h"
#include "hal/sim/ShellCommand.h"

namespace halsim {
namespace {

using hal::Device;
using hal::DeviceKind;
using hal::IsMounted;
using hal::VolumeError;
using hal::VolumeFault;

constexpr const char* kMedia = "/media/";

bool SomethingAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

VolumeError NotMounted(const Device& volume) {
  return {VolumeFault::NotMounted, "Volume " + volume.udi + " is not mounted"};
}

}  // namespace

SimMounter::SimMounter(hal::DeviceTree& tree, DeviceIndex& index, LineOutput& output,
                       MountSettings settings)
    : tree_(tree), index_(index), output_(output), settings_(std::move(settings)) {}

void SimMounter::Mount(const std::string& udi, const hal::MountRequest& request, Done done) {
  done(MountAsAsked(udi, request));
}

void SimMounter::Unmount(const std::string& udi, bool lazy, Done done) {
  done(UnmountAsAsked(udi, lazy));
}

void SimMounter::Eject(const std::string& udi, Done done) {
  done(EjectAsAsked(udi));
}

SimMounter::Outcome SimMounter::MountAsAsked(const std::string& udi,
                                             const hal::MountRequest& request) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{VolumeFault::UnknownFailure, "No volume " + udi};
  const bool isProtected = IsWriteProtected(*volume);
  const bool readOnly = isProtected || request.readOnly;
  if (request.remount) {
    if (isProtected && request.readWrite) {
      return VolumeError{VolumeFault::CannotRemount, "Volume " + udi + " cannot be remounted"};
    }
    return Remount(*volume, readOnly);
  }
  const std::optional<std::string> chosen = ChooseName(*volume, request.name);
  if (!chosen) {
    return VolumeError{VolumeFault::MountPointNotAvailable,
                       "The mount point /media/" + request.name + " is taken"};
  }
  std::vector<std::string> options = request.options;
  options.insert(options.end(), {"nosuid", "nodev"});
  return CarryOut(*volume, {kMedia + *chosen, request.fstype, std::move(options), readOnly, true});
}

/// Nullopt when the name was given and is taken.
std::optional<std::string> SimMounter::ChooseName(const Device& volume,
                                                  const std::string& wanted) const {
  const auto taken = [this](const std::string& name) { return SomethingAt(OnDisk(kMedia + name)); };
  if (!wanted.empty()) {
    if (taken(wanted)) return std::nullopt;
    return wanted;
  }
  int number = 0;
  while (taken(hal::DefaultName(volume, number))) ++number;
  return hal::DefaultName(volume, number);
}

SimMounter::Outcome SimMounter::CarryOut(const Device& volume, const Plan& plan) {
  const std::string directory = OnDisk(plan.mountPoint);
  const bool made = mkdir(directory.c_str(), 0755) == 0;
  if (!made && (plan.byService || errno != EEXIST)) {
    return VolumeError{VolumeFault::UnknownFailure,
                       "Cannot create " + directory + ": " + std::strerror(errno)};
  }
  if (!RunFor(volume, settings_.mountCommand, directory, plan.fstype,
              hal::Join(plan.options, ","))) {
    if (made) rmdir(directory.c_str());
    return VolumeError{VolumeFault::UnknownFailure, "The mount command failed"};
  }
  records_[volume.udi] = {directory, made, plan.byService};
  SetState(volume, plan.mountPoint, true, plan.readOnly);
  return std::nullopt;
}

SimMounter::Outcome SimMounter::Remount(const Device& volume, bool readOnly) {
  SetState(volume, volume.Text(hal::kVolumeMountPoint), true, readOnly);
  return std::nullopt;
}

SimMounter::Outcome SimMounter::UnmountAsAsked(const std::string& udi, bool lazy) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr || !IsMounted(*volume)) {
    return volume == nullptr ? VolumeError{VolumeFault::NotMounted, "No volume " + udi}
                             : NotMounted(*volume);
  }
  const auto record = records_.find(udi);
  if (record == records_.end() || !record->second.byService) {
    return VolumeError{VolumeFault::NotMountedByHal,
                       "Volume " + udi + " was mounted by somebody else"};
  }
  if (!TakeOff(*volume, lazy ? "lazy" : "")) {
    return VolumeError{VolumeFault::Busy, "Volume " + udi + " is busy"};
  }
  return std::nullopt;
}

SimMounter::Outcome SimMounter::EjectAsAsked(const std::string& udi) {
  const Device* ejected = tree_.Find(udi);
  if (ejected == nullptr) return VolumeError{VolumeFault::UnknownFailure, "No volume " + udi};
  const std::string storage = ejected->Text("block.storage_device");
  std::vector<std::string> volumes;
  for (const Device& device : tree_.Devices()) {
    const bool here =
        device.kind == DeviceKind::Volume && device.Text("block.storage_device") == storage;
    if (here) volumes.push_back(device.udi);
  }
  for (const std::string& volume : volumes) {
    if (!IsMounted(*tree_.Find(volume))) continue;
    if (Outcome refused = UnmountAsAsked(volume, false)) return refused;
  }
  for (const std::string& volume : volumes) {
    tree_.Remove(volume);
    index_.Remove(volume);
  }
  return std::nullopt;
}

SimMounter::Outcome SimMounter::MountOutside(const std::string& udi, const std::string& place,
                                             bool readOnly) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{VolumeFault::UnknownFailure, "No volume " + udi};
  if (IsMounted(*volume)) return VolumeError{VolumeFault::AlreadyMounted, "the volume is mounted"};
  const std::string name = place.empty() ? hal::BaseName(volume->Text("block.device")) : place;
  const bool absolute = name.starts_with('/');
  if (!absolute && !hal::IsDirectoryName(name)) {
    return VolumeError{VolumeFault::InvalidMountpoint,
                       Quote(name) + " is not a valid directory name"};
  }
  const bool protectedOrAsked = readOnly || IsWriteProtected(*volume);
  return CarryOut(*volume, {absolute ? name : kMedia + name,
                            volume->Text("volume.fstype"),
                            {protectedOrAsked ? "ro" : "rw"},
                            protectedOrAsked,
                            false});
}

SimMounter::Outcome SimMounter::UnmountOutside(const std::string& udi) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{VolumeFault::NotMounted, "No volume " + udi};
  if (!IsMounted(*volume)) return NotMounted(*volume);
  if (!TakeOff(*volume, "")) return VolumeError{VolumeFault::Busy, "the unmount command failed"};
  return std::nullopt;
}

SimMounter::Outcome SimMounter::RemountOutside(const std::string& udi, bool readOnly) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{VolumeFault::NotMounted, "No volume " + udi};
  if (!IsMounted(*volume)) return NotMounted(*volume);
  return Remount(*volume, readOnly);
}

bool SimMounter::UnmountLazily(const std::string& udi) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr || (!IsMounted(*volume) && !records_.contains(udi))) return false;
  // The device is gone: a command that fails changes nothing about that.
  if (!TakeOff(*volume, "lazy")) {
    records_.erase(udi);
    SetState(*volume, "", false, false);
  }
  return true;
}

/// False, with nothing changed, when the unmount command fails.
bool SimMounter::TakeOff(const Device& volume, const std::string& options) {
  const auto record = records_.find(volume.udi);
  if (record != records_.end()) {
    const std::string directory = record->second.directory;
    if (!RunFor(volume, settings_.unmountCommand, directory, volume.Text("volume.fstype"),
                options)) {
      return false;
    }
    if (record->second.madeDirectory) rmdir(directory.c_str());
    records_.erase(record);
  }
  SetState(volume, "", false, false);
  return true;
}

bool SimMounter::RunFor(const Device& volume, const std::string& command,
                        const std::string& directory, const std::string& fstype,
                        const std::string& options) const {
  if (command.empty()) return true;
  return RunShell(command, {{"UDI", volume.udi},
                            {"DEVICE", volume.Text("block.device")},
                            {"MOUNT_POINT", directory},
                            {"FSTYPE", fstype},
                            {"OPTIONS", options},
                            {"LABEL", volume.Text("volume.label")}});
}

void SimMounter::SetState(const Device& volume, const std::string& mountPoint, bool mounted,
                          bool readOnly) {
  const std::string udi = volume.udi;
  const std::string shown = mounted ? mountPoint : volume.Text(hal::kVolumeMountPoint);
  output_.Line((mounted ? "mounted " : "unmounted ") + udi + " " + QuoteIfNeeded(shown) +
               (mounted ? (readOnly ? " ro" : " rw") : ""));
  tree_.Modify(udi, hal::MountState(mountPoint, mounted, readOnly));
}

std::string SimMounter::OnDisk(const std::string& path) const {
  return settings_.root == "/" ? path : settings_.root + path;
}

}  // namespace halsim
