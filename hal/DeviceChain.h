#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hal/DeviceTree.h"

namespace halsim {

/// New devices of one unit, parents first, not yet in the tree. Their object paths are reserved
/// from the moment they are made; what is not taken is given back by the destructor.
class DeviceChain {
 public:
  DeviceChain(DeviceTree& tree, std::string unit) : tree_(tree), unit_(std::move(unit)) {}
  ~DeviceChain();
  DeviceChain(const DeviceChain&) = delete;
  DeviceChain& operator=(const DeviceChain&) = delete;

  /// A device with info.udi, info.parent and linux.sysfs_path. The reference is valid until Take.
  Device& Append(DeviceKind kind, const std::string& role, const std::string& name,
                 const std::string& parent, const std::string& sysfsPath);

  /// The device with this role; "volume" and "volume@L" stand for the first volume there. Null
  /// when there is none.
  Device* Find(const std::string& role);

  const std::list<Device>& Devices() const { return devices_; }
  /// Hands over all devices; their paths stay reserved.
  std::list<Device> Take();

 private:
  DeviceTree& tree_;
  const std::string unit_;
  std::list<Device> devices_;
};

/// Whether the role that a command names means the device with this role: the same text, or
/// "volume" and "volume@L" for a volume of any number.
bool RoleMeans(const std::string& named, const std::string& role);

}  // namespace halsim
