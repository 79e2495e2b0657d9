#include "hal/face/VolumeError.h"

namespace hal {

const char* FaultName(VolumeFault fault) {
  switch (fault) {
    case VolumeFault::PermissionDenied:
      return "PermissionDenied";
    case VolumeFault::AlreadyMounted:
      return "AlreadyMounted";
    case VolumeFault::InvalidMountOption:
      return "InvalidMountOption";
    case VolumeFault::UnknownFilesystemType:
      return "UnknownFilesystemType";
    case VolumeFault::InvalidMountpoint:
      return "InvalidMountpoint";
    case VolumeFault::MountPointNotAvailable:
      return "MountPointNotAvailable";
    case VolumeFault::CannotRemount:
      return "CannotRemount";
    case VolumeFault::UnknownFailure:
      return "UnknownFailure";
    case VolumeFault::NotMounted:
      return "NotMounted";
    case VolumeFault::NotMountedByHal:
      return "NotMountedByHal";
    case VolumeFault::Busy:
      return "Busy";
  }
  return "UnknownFailure";
}

std::string ErrorName(VolumeFault fault) {
  return std::string("org.freedesktop.Hal.Device.Volume.") + FaultName(fault);
}

}  // namespace hal
