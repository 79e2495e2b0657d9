#pragma once

#include <string>
#include <vector>

#include "hal/kernel/BlockFacts.h"
#include "hal/kernel/Mounts.h"

// Facts of plugged hardware, as udev would tell them.

namespace hardware {

/// A stick on USB port 1-1.3: disk sda, medium 7.
halkernel::BlockFacts Stick(const std::string& disk = "sda", int host = 0, int lun = 0);
/// A card in the SD host mmc0: disk mmcblk0, medium 9.
halkernel::BlockFacts Card(const std::string& type = "SD");
/// A partition of the disk with a file system.
halkernel::BlockFacts Partition(const halkernel::BlockFacts& disk, int number,
                                const std::string& uuid = "0000-060C");
/// The facts with another medium's number.
halkernel::BlockFacts OfMedium(halkernel::BlockFacts facts, std::uint64_t medium);

/// A mount of the device by its number.
halkernel::MountEntry MountOf(const halkernel::BlockFacts& facts, const std::string& target,
                              bool readOnly = false);

}  // namespace hardware
