#include "hal/face/MountRequest.h"

#include <algorithm>
#include <optional>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/Text.h"

namespace hal {
namespace {

constexpr std::size_t kMaxNameBytes = 255;

std::optional<VolumeError> CheckOptions(const Device& volume,
                                        const std::vector<std::string>& options) {
  const auto* valid = volume.Get<std::vector<std::string>>("volume.mount.valid_options");
  if (valid == nullptr) return std::nullopt;
  for (const std::string& option : options) {
    const std::size_t equals = option.find('=');
    const std::string key = equals == std::string::npos ? option : option.substr(0, equals + 1);
    if (!Contains(*valid, key)) {
      return VolumeError{VolumeFault::InvalidMountOption,
                         "The option '" + option + "' is not allowed"};
    }
  }
  return std::nullopt;
}

}  // namespace

std::variant<MountRequest, VolumeError> CheckMount(const Device& volume, const std::string& name,
                                                   const std::string& fstype,
                                                   const std::vector<std::string>& options) {
  if (name.find_first_of("/\n") != std::string::npos) {
    return VolumeError{VolumeFault::InvalidMountpoint, "The mount point '" + name + "' is invalid"};
  }
  MountRequest request{.name = name, .fstype = fstype, .options = Flatten(options)};
  request.readWrite = Contains(request.options, "rw");
  request.readOnly = Contains(request.options, "ro") && !request.readWrite;
  if (Contains(request.options, "remount")) {
    if (!IsMounted(volume)) {
      return VolumeError{VolumeFault::CannotRemount,
                         "Volume " + volume.udi + " cannot be remounted"};
    }
    request.remount = true;
    return request;
  }
  if (IsMounted(volume)) {
    return VolumeError{VolumeFault::AlreadyMounted, "Volume " + volume.udi + " is already mounted"};
  }
  if (const auto refused = CheckOptions(volume, request.options)) return *refused;
  if (fstype.empty()) request.fstype = volume.Text("volume.fstype");
  if (request.fstype.empty()) {
    return VolumeError{VolumeFault::UnknownFilesystemType, "The file system is not known"};
  }
  return request;
}

std::vector<std::string> Flatten(const std::vector<std::string>& options) {
  std::vector<std::string> flat;
  for (const std::string& text : options) {
    for (std::string& option : Split(text, ',')) flat.push_back(std::move(option));
  }
  return flat;
}

bool IsDirectoryName(const std::string& name) {
  const auto control = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  };
  return !name.empty() && name.size() <= kMaxNameBytes && name != "." && name != ".." &&
         name.find('/') == std::string::npos && std::none_of(name.begin(), name.end(), control);
}

std::string DefaultName(const Device& volume, int number) {
  const std::string label = volume.Text("volume.label");
  const std::string base = IsDirectoryName(label) ? label : "disk";
  return number == 0 ? base : base + "-" + std::to_string(number);
}

}  // namespace hal
