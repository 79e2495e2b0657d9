#pragma once

#include <string>

#include "frame/ConfigManager.h"

struct HalVolumeInfo;

/// The entry of the USB map that a volume's device was found under.
using UsbMapMatch = UsbMapEntry;

/// The name that people see for a local volume: "Memory Card - HOST", "USB Mass Storage", "KR20 -
/// SLOT" for the unit's own reader, " - NAME" for a device that the configuration names; empty for
/// a volume on any other bus. `match` may be null. No side effects.
[[nodiscard]] std::string FriendlyName(const HalVolumeInfo& info, const UsbMapMatch* match);
