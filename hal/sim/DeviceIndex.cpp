#include "hal/sim/DeviceIndex.h"

#include <algorithm>
#include <string_view>
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

void DeviceIndex::Add(const std::string& udi, DeviceLabel label) {
  labels_.insert_or_assign(udi, std::move(label));
}

const DeviceLabel& DeviceIndex::Of(const std::string& udi) const {
  static const DeviceLabel none;
  const auto found = labels_.find(udi);
  return found == labels_.end() ? none : found->second;
}

bool DeviceIndex::HasRole(const std::string& plugged, const std::string& role) const {
  return std::any_of(labels_.begin(), labels_.end(), [&](const auto& entry) {
    return entry.second.plugged == plugged && entry.second.role == role;
  });
}

}  // namespace halsim
