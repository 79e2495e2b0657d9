#pragma once

#include <list>
#include <string>

#include "hal/face/DeviceTree.h"

namespace hal {

/// A device that is the parent of others.
struct Place {
  std::string udi;
  std::string sysfsPath;
};

/// How texts from the hardware (serial number, label, controller) become part of an object's name.
enum class HardwareTexts {
  /// Slashes become "_" and the words "usb", "scsi" and "mmc" are broken ("m_mc"): clients tell the
  /// bus of a device by these words in its name.
  Tamed,
  /// Unchanged: a user of the simulator may want just such a name.
  AsGiven,
};

/// A text from the hardware in the form for object names; see HardwareTexts::Tamed.
std::string TameForName(std::string_view text);

/// New devices, parents first, not yet in the tree. Their object paths are reserved as soon as they
/// are made; the destructor releases those of devices that were not taken.
class DeviceChain {
 public:
  explicit DeviceChain(DeviceTree& tree, HardwareTexts texts = HardwareTexts::Tamed)
      : tree_(tree), texts_(texts) {}
  ~DeviceChain();
  DeviceChain(const DeviceChain&) = delete;
  DeviceChain& operator=(const DeviceChain&) = delete;

  /// Adds a device with info.udi, info.parent and linux.sysfs_path. The reference is valid until
  /// Take.
  Device& Append(DeviceKind kind, const std::string& name, const std::string& parent,
                 const std::string& sysfsPath);

  /// The text in the form for this chain's names. Every text from the hardware passes through here.
  std::string InName(const std::string& hardwareText) const;

  const std::list<Device>& Devices() const { return devices_; }
  /// A device of the chain; null if none has this path.
  Device* Find(const std::string& udi);
  /// Returns all devices; their paths stay reserved.
  std::list<Device> Take();

 private:
  DeviceTree& tree_;
  const HardwareTexts texts_;
  std::list<Device> devices_;
};

}  // namespace hal
