#pragma once

#include <optional>
#include <string>
#include <vector>

#include "frame/ConfigManager.h"

// What a local volume is: where its device stands in the configuration's USB map, and its record as
// the log shows it.

struct HalVolumeInfo;

/// The entry of the USB map that a volume's device was found under.
using UsbMapMatch = UsbMapEntry;

/// How a device was found in the USB map.
struct tUsbMapPlace {
  UsbMapMatch match;
  bool byReader = false;  ///< as a supported card reader, whatever its port; by its port otherwise
};

/// The first entry of the map whose usbid is part of the device's port path. A supported card
/// reader is found under the first entry of all, even when a later one names its port. Nullopt on
/// any bus but USB, and when no entry fits.
[[nodiscard]] std::optional<tUsbMapPlace> FindInUsbMap(const HalVolumeInfo& info,
                                                       const tUsbMap& map);

/// The lines that show a record: one for each field that means something on the volume's bus.
[[nodiscard]] std::vector<std::string> DescribeVolume(const HalVolumeInfo& info);
