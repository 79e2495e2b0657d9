#pragma once

#include <list>
#include <string>

#include "hal/face/DeviceTree.h"

namespace hal {

/// A device that others hang on.
struct Place {
  std::string udi;
  std::string sysfsPath;
};

/// What becomes of texts that the hardware gives itself (serial number, label, controller) when
/// they go into an object's name.
enum class HardwareTexts {
  /// Slashes become "_" and the words "usb", "scsi" and "mmc" are broken ("m_mc"): clients tell the
  /// bus of a device by these words in its name.
  Tamed,
  /// As they are: the simulator's user may want just such a name.
  AsGiven,
};

/// A text of the hardware as it goes into an object's name; see HardwareTexts::Tamed.
std::string TameForName(std::string_view text);

/// New devices, parents first, not yet in the tree. Their object paths are reserved from the moment
/// they are made; what is not taken is given back by the destructor.
class DeviceChain {
 public:
  explicit DeviceChain(DeviceTree& tree, HardwareTexts texts = HardwareTexts::Tamed)
      : tree_(tree), texts_(texts) {}
  ~DeviceChain();
  DeviceChain(const DeviceChain&) = delete;
  DeviceChain& operator=(const DeviceChain&) = delete;

  /// A device with info.udi, info.parent and linux.sysfs_path. The reference is valid until Take.
  Device& Append(DeviceKind kind, const std::string& name, const std::string& parent,
                 const std::string& sysfsPath);

  /// The text as this chain's names carry it. Whatever the hardware says passes through here.
  std::string InName(const std::string& hardwareText) const;

  const std::list<Device>& Devices() const { return devices_; }
  /// A device of the chain; null when there is none with this path.
  Device* Find(const std::string& udi);
  /// Hands over all devices; their paths stay reserved.
  std::list<Device> Take();

 private:
  DeviceTree& tree_;
  const HardwareTexts texts_;
  std::list<Device> devices_;
};

}  // namespace hal
