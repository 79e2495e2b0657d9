#include "hal/face/DeviceTree.h"

#include <glib.h>

#include <algorithm>

#include "hal/face/HalNames.h"

namespace hal {
namespace {

std::string PathElements(const std::string& name) {
  std::string path;
  for (const char c : name) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    // An empty path element would make the whole path invalid.
    const bool separator = c == '/' && !path.empty() && path.back() != '/';
    path += plain || separator ? c : '_';
  }
  if (path.empty() || path.back() == '/') path += '_';
  return path;
}

}  // namespace

std::string Device::Text(const std::string& key) const {
  const std::string* text = Get<std::string>(key);
  return text != nullptr ? *text : std::string();
}

DeviceTree::DeviceTree() {
  Device root;
  root.udi = Reserve("computer");
  root.properties["info.udi"] = root.udi;
  root.properties["linux.sysfs_path"] = std::string("/sys/devices");
  Add(std::move(root));
}

const Device* DeviceTree::Find(const std::string& udi) const {
  const auto found = std::find_if(devices_.begin(), devices_.end(),
                                  [&](const Device& device) { return device.udi == udi; });
  return found == devices_.end() ? nullptr : &*found;
}

std::vector<std::string> DeviceTree::FindByCapability(const std::string& capability) const {
  std::vector<std::string> udis;
  for (const Device& device : devices_) {
    const auto* capabilities = device.Get<std::vector<std::string>>("info.capabilities");
    if (capabilities == nullptr) continue;
    if (std::find(capabilities->begin(), capabilities->end(), capability) != capabilities->end()) {
      udis.push_back(device.udi);
    }
  }
  return udis;
}

std::string DeviceTree::Reserve(const std::string& name) {
  const std::string wanted = kDevicePrefix + PathElements(name);
  std::string udi = wanted;
  for (int number = 0; names_.contains(udi); ++number) udi = wanted + "_" + std::to_string(number);
  names_.insert(udi);
  return udi;
}

void DeviceTree::Release(const std::string& udi) {
  names_.erase(udi);
}

void DeviceTree::Add(Device device) {
  g_assert(names_.contains(device.udi) && Find(device.udi) == nullptr);
  devices_.push_back(std::move(device));
  AnnounceAdded(std::string(devices_.back().udi));
}

void DeviceTree::AnnounceAdded(const std::string& udi) {
  if (IDeviceTreeObserver* audience = Audience()) audience->DeviceAdded(udi);
}

void DeviceTree::Remove(const std::string& udi) {
  // A copy: the caller's text may be the device's own.
  const std::string removed = udi;
  if (std::erase_if(devices_, [&](const Device& device) { return device.udi == removed; }) == 0) {
    return;
  }
  Release(removed);
  if (IDeviceTreeObserver* audience = Audience()) audience->DeviceRemoved(removed);
}

void DeviceTree::Modify(const std::string& udi, const PropertyEdits& edits) {
  const auto device = std::find_if(devices_.begin(), devices_.end(),
                                   [&](const Device& candidate) { return candidate.udi == udi; });
  if (device == devices_.end()) return;
  std::vector<PropertyChange> changes;
  for (const auto& [key, value] : edits) {
    const auto old = device->properties.find(key);
    const bool known = old != device->properties.end();
    if (value ? known && old->second == *value : !known) continue;
    if (value) {
      device->properties.insert_or_assign(key, *value);
    } else {
      device->properties.erase(old);
    }
    changes.insert(changes.begin(), PropertyChange{key, !known, !value});
  }
  if (changes.empty()) return;
  if (IDeviceTreeObserver* audience = Audience()) audience->PropertiesModified(udi, changes);
}

}  // namespace hal
