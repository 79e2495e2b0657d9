#pragma once

#include <optional>

#include "hal/kernel/BlockFacts.h"

struct udev_device;

namespace halkernel {

/// The facts of a block device and of the chain above it. Reads the properties of the device object
/// passed, so that those of an event are the event's own; what is missing or not a number keeps its
/// default. Returns nullopt if it is not a disk or partition, or is gone.
std::optional<BlockFacts> FactsOf(udev_device* device);

}  // namespace halkernel
