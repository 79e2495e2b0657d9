#pragma once

namespace hal {

// The well-known texts of the service's bus interface. A text that is used in one place only, as
// most properties are, is defined there.

inline constexpr const char* kService = "org.freedesktop.Hal";
inline constexpr const char* kManagerPath = "/org/freedesktop/Hal/Manager";
inline constexpr const char* kManagerInterface = "org.freedesktop.Hal.Manager";
inline constexpr const char* kDeviceInterface = "org.freedesktop.Hal.Device";
inline constexpr const char* kVolumeInterface = "org.freedesktop.Hal.Device.Volume";
inline constexpr const char* kIntrospectableInterface = "org.freedesktop.DBus.Introspectable";

inline constexpr const char* kDevicePrefix = "/org/freedesktop/Hal/devices/";
inline constexpr const char* kRootDevice = "/org/freedesktop/Hal/devices/computer";

inline constexpr const char* kVolumeIsMounted = "volume.is_mounted";
inline constexpr const char* kVolumeIsMountedReadOnly = "volume.is_mounted_read_only";
inline constexpr const char* kVolumeMountPoint = "volume.mount_point";

}  // namespace hal
