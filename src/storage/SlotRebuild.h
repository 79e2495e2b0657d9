#pragma once

#include <string>

/// The sysfs files through which a card's disk and its first partition are announced again.
struct tUeventFiles {
  std::string disk;
  std::string partition;
  bool known = false;  ///< false: the device is none of the unit's slots, and both are "/dev/null"
};

/// The files of the card at `backingDevice` ("/dev/mmcblk0" to "/dev/mmcblk2").
[[nodiscard]] tUeventFiles UeventFilesOf(const std::string& backingDevice);
