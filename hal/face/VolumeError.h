#pragma once

#include <string>

namespace hal {

/// The errors of the volume interface. Their names on the bus are in VolumeError.cpp.
enum class VolumeFault {
  PermissionDenied,
  AlreadyMounted,
  InvalidMountOption,
  UnknownFilesystemType,
  InvalidMountpoint,
  MountPointNotAvailable,
  CannotRemount,
  UnknownFailure,
  NotMounted,
  NotMountedByHal,
  Busy,
};

/// Why a mount, unmount or eject was refused, with a text for people.
struct VolumeError {
  VolumeFault fault;
  std::string text;
};

/// "AlreadyMounted": the last part of the error's name.
const char* FaultName(VolumeFault fault);
/// "org.freedesktop.Hal.Device.Volume.AlreadyMounted".
std::string ErrorName(VolumeFault fault);

}  // namespace hal
