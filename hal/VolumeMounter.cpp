#include "hal/VolumeMounter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hal/ShellCommand.h"
#include "hal/Text.h"

namespace halsim {
namespace {

constexpr const char* kMedia = "/media/";

bool Contains(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool IsDirectoryName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of("/\n") == std::string::npos;
}

bool SomethingAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

/// Options of one call, taken apart at commas.
std::vector<std::string> Flatten(const std::vector<std::string>& options) {
  std::vector<std::string> flat;
  for (const std::string& text : options) {
    for (std::string& option : Split(text, ',')) flat.push_back(std::move(option));
  }
  return flat;
}

VolumeError NotMounted(const Device& volume) {
  return {"NotMounted", "Volume " + volume.udi + " is not mounted"};
}

}  // namespace

bool IsMounted(const Device& volume) {
  const bool* mounted = volume.Get<bool>("volume.is_mounted");
  return mounted != nullptr && *mounted;
}

VolumeMounter::VolumeMounter(DeviceTree& tree, Tape& tape, MountSettings settings)
    : tree_(tree), tape_(tape), settings_(std::move(settings)) {}

VolumeMounter::Outcome VolumeMounter::Mount(const std::string& udi, const std::string& name,
                                            const std::string& fstype,
                                            const std::vector<std::string>& options) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{"UnknownFailure", "No volume " + udi};
  if (name.find_first_of("/\n") != std::string::npos) {
    return VolumeError{"InvalidMountpoint", "The mount point '" + name + "' is invalid"};
  }
  std::vector<std::string> all = Flatten(options);
  const bool readOnly = volume->writeProtected || (Contains(all, "ro") && !Contains(all, "rw"));
  if (Contains(all, "remount")) {
    if (!IsMounted(*volume) || (volume->writeProtected && Contains(all, "rw"))) {
      return VolumeError{"CannotRemount", "Volume " + udi + " cannot be remounted"};
    }
    return Remount(*volume, readOnly);
  }
  if (IsMounted(*volume)) {
    return VolumeError{"AlreadyMounted", "Volume " + udi + " is already mounted"};
  }
  if (Outcome refused = CheckOptions(*volume, all)) return refused;
  const std::string type = fstype.empty() ? volume->Text("volume.fstype") : fstype;
  if (type.empty()) return VolumeError{"UnknownFilesystemType", "The file system is not known"};
  const std::optional<std::string> chosen = ChooseName(*volume, name);
  if (!chosen) {
    return VolumeError{"MountPointNotAvailable", "The mount point /media/" + name + " is taken"};
  }
  all.insert(all.end(), {"nosuid", "nodev"});
  return CarryOut(*volume, {kMedia + *chosen, type, std::move(all), readOnly, true});
}

VolumeMounter::Outcome VolumeMounter::CheckOptions(const Device& volume,
                                                   const std::vector<std::string>& options) const {
  const auto* valid = volume.Get<std::vector<std::string>>("volume.mount.valid_options");
  if (valid == nullptr) return std::nullopt;
  for (const std::string& option : options) {
    const std::size_t equals = option.find('=');
    const std::string key = equals == std::string::npos ? option : option.substr(0, equals + 1);
    if (!Contains(*valid, key)) {
      return VolumeError{"InvalidMountOption", "The option '" + option + "' is not allowed"};
    }
  }
  return std::nullopt;
}

/// Nothing when the name was given and is taken.
std::optional<std::string> VolumeMounter::ChooseName(const Device& volume,
                                                     const std::string& wanted) const {
  const auto taken = [this](const std::string& name) { return SomethingAt(OnDisk(kMedia + name)); };
  if (!wanted.empty()) {
    if (taken(wanted)) return std::nullopt;
    return wanted;
  }
  const std::string label = volume.Text("volume.label");
  const std::string base = IsDirectoryName(label) ? label : "disk";
  std::string name = base;
  for (int number = 1; taken(name); ++number) name = base + "-" + std::to_string(number);
  return name;
}

VolumeMounter::Outcome VolumeMounter::CarryOut(const Device& volume, const Plan& plan) {
  const std::string directory = OnDisk(plan.mountPoint);
  const bool made = mkdir(directory.c_str(), 0755) == 0;
  if (!made && (plan.byService || errno != EEXIST)) {
    return VolumeError{"UnknownFailure", "Cannot make " + directory + ": " + std::strerror(errno)};
  }
  if (!RunFor(volume, settings_.mountCommand, directory, plan.fstype, Join(plan.options, ","))) {
    if (made) rmdir(directory.c_str());
    return VolumeError{"UnknownFailure", "The mount command failed"};
  }
  records_[volume.udi] = {directory, made, plan.byService};
  SetState(volume, plan.mountPoint, true, plan.readOnly);
  return std::nullopt;
}

VolumeMounter::Outcome VolumeMounter::Remount(const Device& volume, bool readOnly) {
  SetState(volume, volume.Text("volume.mount_point"), true, readOnly);
  return std::nullopt;
}

VolumeMounter::Outcome VolumeMounter::Unmount(const std::string& udi,
                                              const std::vector<std::string>& options) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr || !IsMounted(*volume)) {
    return volume == nullptr ? VolumeError{"NotMounted", "No volume " + udi} : NotMounted(*volume);
  }
  const auto record = records_.find(udi);
  if (record == records_.end() || !record->second.byService) {
    return VolumeError{"NotMountedByHal", "Volume " + udi + " was mounted by somebody else"};
  }
  const bool lazy = Contains(Flatten(options), "lazy");
  if (!TakeOff(*volume, lazy ? "lazy" : "")) {
    return VolumeError{"Busy", "Volume " + udi + " is busy"};
  }
  return std::nullopt;
}

VolumeMounter::Outcome VolumeMounter::Eject(const std::string& udi) {
  const Device* ejected = tree_.Find(udi);
  if (ejected == nullptr) return VolumeError{"UnknownFailure", "No volume " + udi};
  const std::string storage = ejected->Text("block.storage_device");
  std::vector<std::string> volumes;
  for (const Device& device : tree_.Devices()) {
    const bool here =
        device.kind == DeviceKind::Volume && device.Text("block.storage_device") == storage;
    if (here) volumes.push_back(device.udi);
  }
  for (const std::string& volume : volumes) {
    if (!IsMounted(*tree_.Find(volume))) continue;
    if (Outcome refused = Unmount(volume, {})) return refused;
  }
  for (const std::string& volume : volumes) tree_.Remove(volume);
  return std::nullopt;
}

VolumeMounter::Outcome VolumeMounter::MountOutside(const std::string& udi, const std::string& place,
                                                   bool readOnly) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{"UnknownFailure", "No volume " + udi};
  if (IsMounted(*volume)) return VolumeError{"AlreadyMounted", "the volume is mounted"};
  const std::string name = place.empty() ? BaseName(volume->Text("block.device")) : place;
  const bool absolute = name.starts_with('/');
  if (!absolute && !IsDirectoryName(name)) {
    return VolumeError{"InvalidMountpoint", Quote(name) + " is no name for a directory"};
  }
  const bool protectedOrAsked = readOnly || volume->writeProtected;
  return CarryOut(*volume, {absolute ? name : kMedia + name,
                            volume->Text("volume.fstype"),
                            {protectedOrAsked ? "ro" : "rw"},
                            protectedOrAsked,
                            false});
}

VolumeMounter::Outcome VolumeMounter::UnmountOutside(const std::string& udi) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{"NotMounted", "No volume " + udi};
  if (!IsMounted(*volume)) return NotMounted(*volume);
  if (!TakeOff(*volume, "")) return VolumeError{"Busy", "the unmount command failed"};
  return std::nullopt;
}

VolumeMounter::Outcome VolumeMounter::RemountOutside(const std::string& udi, bool readOnly) {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return VolumeError{"NotMounted", "No volume " + udi};
  if (!IsMounted(*volume)) return NotMounted(*volume);
  return Remount(*volume, readOnly);
}

bool VolumeMounter::UnmountLazily(const std::string& udi) {
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
bool VolumeMounter::TakeOff(const Device& volume, const std::string& options) {
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

bool VolumeMounter::RunFor(const Device& volume, const std::string& command,
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

void VolumeMounter::SetState(const Device& volume, const std::string& mountPoint, bool mounted,
                             bool readOnly) {
  const std::string udi = volume.udi;
  const std::string shown = mounted ? mountPoint : volume.Text("volume.mount_point");
  tape_.Line((mounted ? "mounted " : "unmounted ") + udi + " " + QuoteIfNeeded(shown) +
             (mounted ? (readOnly ? " ro" : " rw") : ""));
  // The newest change is announced first: the mount point.
  tree_.Modify(udi, {{"volume.is_mounted", mounted},
                     {"volume.is_mounted_read_only", readOnly},
                     {"volume.mount_point", mountPoint}});
}

std::string VolumeMounter::OnDisk(const std::string& path) const {
  return settings_.root == "/" ? path : settings_.root + path;
}

}  // namespace halsim
