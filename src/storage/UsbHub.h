#pragma once

#include <string>

/// Takes the USB port path out of the sysfs path of a SCSI host: the path segment that holds the
/// character two before the first "host", with ":" written as "--" and "." as "_". A path that ends
/// in /usb1/1-1/1-1.3/1-1.3:1.0/host2 gives 1-1_3--1_0. False, with `hub` unchanged, when there is
/// no such segment.
[[nodiscard]] bool UsbHubFromSysfsPath(const std::string& path, std::string& hub);
