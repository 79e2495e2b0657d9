#pragma once

#include <optional>
#include <string>

#include "volumes/Identity.h"

/// The name that people see for a local volume: "Memory Card - HOST", "USB Mass Storage", "KR20 -
/// SLOT" for the unit's own reader, " - NAME" for a device that the configuration names; empty for
/// a volume on any other bus. No side effects.
[[nodiscard]] std::string FriendlyName(const HalVolumeInfo& info,
                                       const std::optional<UsbMapMatch>& match);
