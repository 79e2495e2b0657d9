#pragma once

#include "frame/ConfigManager.h"

struct HalVolumeInfo;

/// Whether a volume is left alone, and why.
enum class tExclusion {
  kNone,
  kIgnoredDevice,  ///< the configuration ignores its block device
  kOtherBus,       ///< its bus is neither USB nor SD/MMC
};

/// `ignored` has the entries of the configuration that ignore a device, by its path, which is
/// compared exactly.
[[nodiscard]] tExclusion ExclusionOf(const HalVolumeInfo& info, const tUsbMap& ignored);
