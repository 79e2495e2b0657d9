#pragma once

#include <map>
#include <string>

#include "hal/face/DeviceTree.h"

namespace halsim {

/// What the simulator knows about a device beyond its properties.
struct DeviceLabel {
  std::string plugged;  // the NAME of the plug command that brought it in
  std::string role;     // "storage", "volume1@2"; see docs/halsim.md
  bool writeProtected = false;
};

/// The labels of all devices that are in the tree or about to be, by object path.
class DeviceIndex {
 public:
  void Add(const std::string& udi, DeviceLabel label);
  void Remove(const std::string& udi) { labels_.erase(udi); }

  /// Returns an empty label for a device that was not plugged.
  const DeviceLabel& Of(const std::string& udi) const;
  bool HasRole(const std::string& plugged, const std::string& role) const;

 private:
  std::map<std::string, DeviceLabel> labels_;
};

/// Whether the role in a command matches this role of a device: the same text, or "volume" and
/// "volume@L" for a volume of any number.
bool RoleMeans(const std::string& named, const std::string& role);

}  // namespace halsim
