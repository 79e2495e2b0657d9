#pragma once

#include <string>

/// Names the mount points of local volumes. Keeps no table: a device always gets the same name, and
/// names differ because device nodes do.
class CMountPointNameManager {
 public:
  virtual ~CMountPointNameManager() = default;

  /// Sets `name` to the block device's text from its sixth character on ("/dev/sda1" gives "sda1").
  /// False, with `name` unchanged, when "/dev/" occurs nowhere in it.
  [[nodiscard]] bool GetNextMountPointName(std::string& name, const std::string& blockDevice);
};
