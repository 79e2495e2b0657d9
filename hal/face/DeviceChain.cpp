#include "hal/face/DeviceChain.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace hal {

std::string TameForName(std::string_view text) {
  static constexpr std::array<std::string_view, 3> kBusWords = {"usb", "scsi", "mmc"};
  std::string tame;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view rest = text.substr(at);
    tame += text[at] == '/' ? '_' : text[at];
    const bool word = std::any_of(kBusWords.begin(), kBusWords.end(),
                                  [rest](std::string_view bus) { return rest.starts_with(bus); });
    if (word) tame += '_';
  }
  return tame;
}

DeviceChain::~DeviceChain() {
  for (const Device& device : devices_) tree_.Release(device.udi);
}

Device& DeviceChain::Append(DeviceKind kind, const std::string& name, const std::string& parent,
                            const std::string& sysfsPath) {
  Device& device = devices_.emplace_back();
  device.udi = tree_.Reserve(name);
  device.kind = kind;
  device.properties["info.udi"] = device.udi;
  device.properties["info.parent"] = parent;
  device.properties["linux.sysfs_path"] = sysfsPath;
  return device;
}

std::string DeviceChain::InName(const std::string& hardwareText) const {
  return texts_ == HardwareTexts::Tamed ? TameForName(hardwareText) : hardwareText;
}

Device* DeviceChain::Find(const std::string& udi) {
  const auto found = std::find_if(devices_.begin(), devices_.end(),
                                  [&](const Device& device) { return device.udi == udi; });
  return found == devices_.end() ? nullptr : &*found;
}

std::list<Device> DeviceChain::Take() {
  return std::exchange(devices_, {});
}

}  // namespace hal
