#include "hal/DeviceChain.h"

#include <utility>

namespace halsim {
namespace {

constexpr std::string_view kVolume = "volume";

/// The role of a volume without its number.
std::string Unnumbered(const std::string& role) {
  if (!role.starts_with(kVolume)) return role;
  const std::size_t end = role.find_first_not_of("0123456789", kVolume.size());
  return std::string(kVolume) + (end == std::string::npos ? "" : role.substr(end));
}

}  // namespace

bool RoleMeans(const std::string& named, const std::string& role) {
  if (named == role || named == Unnumbered(role)) return true;
  return named == kVolume && role.starts_with(kVolume);
}

DeviceChain::~DeviceChain() {
  for (const Device& device : devices_) tree_.Release(device.udi);
}

Device& DeviceChain::Append(DeviceKind kind, const std::string& role, const std::string& name,
                            const std::string& parent, const std::string& sysfsPath) {
  Device& device = devices_.emplace_back();
  device.udi = tree_.Reserve(name);
  device.kind = kind;
  device.unit = unit_;
  device.role = role;
  device.properties["info.udi"] = device.udi;
  device.properties["info.parent"] = parent;
  device.properties["linux.sysfs_path"] = sysfsPath;
  return device;
}

Device* DeviceChain::Find(const std::string& role) {
  for (Device& device : devices_) {
    if (RoleMeans(role, device.role)) return &device;
  }
  return nullptr;
}

std::list<Device> DeviceChain::Take() {
  return std::exchange(devices_, {});
}

}  // namespace halsim
