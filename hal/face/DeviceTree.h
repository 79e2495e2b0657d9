#pragma once

#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hal/face/PropertyValue.h"

// The devices that the service knows; independent of the bus. Any source of devices can fill the
// tree. The contract: parents are added before their children, a volume is unmounted before it is
// removed, and later changes go through Modify. Main thread only.

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

  /// The property; null if it does not exist or has another type.
  template <typename T>
  const T* Get(const std::string& key) const {
    const auto found = properties.find(key);
    return found == properties.end() ? nullptr : std::get_if<T>(&found->second);
  }
  /// The string property; empty if it does not exist or is not a string.
  std::string Text(const std::string& key) const;
};

struct PropertyChange {
  std::string key;
  bool added;
  bool removed;
};

/// New values by key, in the order of the changes; std::nullopt removes the property.
using PropertyEdits = std::vector<std::pair<std::string, std::optional<PropertyValue>>>;

/// Notified after each change of the tree.
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

  /// Not owned; may be null.
  void SetObserver(IDeviceTreeObserver* observer) { observer_ = observer; }

  /// All devices, in the order of their arrival.
  const std::list<Device>& Devices() const { return devices_; }
  /// Null if there is none; valid until the device is removed.
  const Device* Find(const std::string& udi) const;
  /// Devices whose info.capabilities contains the capability, in the order of their arrival.
  std::vector<std::string> FindByCapability(const std::string& capability) const;

  /// Makes an object path from a name: adds the prefix, replaces characters that a path cannot
  /// contain, and appends _0, _1, ... if it is in use. The path stays reserved until its device is
  /// removed or Release frees it.
  std::string Reserve(const std::string& name);
  void Release(const std::string& udi);

  /// Requires: the device's path was reserved and is not in the tree.
  void Add(Device device);
  void Remove(const std::string& udi);
  /// Announces only what changes. Does nothing if there is no such device.
  void Modify(const std::string& udi, const PropertyEdits& edits);
  /// Notifies the observer of a device that was added silently.
  void AnnounceAdded(const std::string& udi);

  /// While one of these exists, the observer is not notified.
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
