#pragma once

#include <optional>

#include "hal/kernel/BlockFacts.h"

struct udev_device;

namespace halkernel {

/// The facts of a block device with the chain above it. Properties come from the device as it was
/// handed over, so that those of an event are the event's own; what is missing or no number stays
/// at its default. Nothing when it is no disk or partition, or is gone.
std::optional<BlockFacts> FactsOf(udev_device* device);

}  // namespace halkernel
