#pragma once

#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hal/face/PropertyValue.h"

// The devices that the service knows, without any bus. Any source of devices can fill the tree; its
// contract: parents come before children, a volume is unmounted before it goes, and whatever
// changes later changes through Modify. Everything here belongs to the main thread.

namespace hal {

enum class DeviceKind {
  Other,
  Controller,
  SdHost,
  Card,
  UsbDevice,
  UsbInterface,
  ScsiHost,
  ScsiDevice,
  Storage,
  Volume,
};

struct Device {
  std::string udi;
  DeviceKind kind = DeviceKind::Other;
  std::map<std::string, PropertyValue> properties;

  /// The property if it is there and of this type, else null.
  template <typename T>
  const T* Get(const std::string& key) const {
    const auto found = properties.find(key);
    return found == properties.end() ? nullptr : std::get_if<T>(&found->second);
  }
  /// The string property; empty when it is not there or no string.
  std::string Text(const std::string& key) const;
};

struct PropertyChange {
  std::string key;
  bool added;
  bool removed;
};

/// New values by key, in the order of the changes; nothing takes the property away.
using PropertyEdits = std::vector<std::pair<std::string, std::optional<PropertyValue>>>;

/// Told after each change of the tree.
class IDeviceTreeObserver {
 public:
  virtual ~IDeviceTreeObserver() = default;
  virtual void DeviceAdded(const std::string& udi) = 0;
  virtual void DeviceRemoved(const std::string& udi) = 0;
  /// Newest change first, never empty.
  virtual void PropertiesModified(const std::string& udi,
                                  const std::vector<PropertyChange>& changes) = 0;
};

class DeviceTree {
 public:
  /// Holds the root device from the start.
  DeviceTree();

  /// Not owned; null for none.
  void SetObserver(IDeviceTreeObserver* observer) { observer_ = observer; }

  /// In the order of their arrival.
  const std::list<Device>& Devices() const { return devices_; }
  /// Null when there is none; valid until the device is removed.
  const Device* Find(const std::string& udi) const;
  /// Objects whose info.capabilities holds the capability, in the order of their arrival.
  std::vector<std::string> FindByCapability(const std::string& capability) const;

  /// Makes an object path from a name: prefix, characters that a path cannot have replaced, and _0,
  /// _1, ... on a clash. The path is taken until its device is removed or Release gives it back.
  std::string Reserve(const std::string& name);
  void Release(const std::string& udi);

  /// Requires: the device's path was reserved and is not in the tree.
  void Add(Device device);
  void Remove(const std::string& udi);
  /// What does not change is not announced. Nothing happens when the device is not there.
  void Modify(const std::string& udi, const PropertyEdits& edits);
  /// Tells the observer of a device that was added silently.
  void AnnounceAdded(const std::string& udi);

  /// While one of these lives the observer is told nothing.
  class Silence {
   public:
    explicit Silence(DeviceTree& tree) : tree_(tree) { ++tree_.silences_; }
    ~Silence() { --tree_.silences_; }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

   private:
    DeviceTree& tree_;
  };

 private:
  IDeviceTreeObserver* Audience() const { return silences_ == 0 ? observer_ : nullptr; }

  std::list<Device> devices_;
  std::set<std::string> names_;
  IDeviceTreeObserver* observer_ = nullptr;
  int silences_ = 0;
};

}  // namespace hal
