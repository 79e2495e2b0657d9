#pragma once

namespace halsim {

// The well-known texts of the service's bus interface.

inline constexpr const char* kService = "org.freedesktop.Hal";
inline constexpr const char* kManagerPath = "/org/freedesktop/Hal/Manager";
inline constexpr const char* kManagerInterface = "org.freedesktop.Hal.Manager";
inline constexpr const char* kDeviceInterface = "org.freedesktop.Hal.Device";
inline constexpr const char* kVolumeInterface = "org.freedesktop.Hal.Device.Volume";
inline constexpr const char* kIntrospectableInterface = "org.freedesktop.DBus.Introspectable";

}  // namespace halsim
