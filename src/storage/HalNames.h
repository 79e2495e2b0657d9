#pragma once

// The well-known texts of the hardware service's bus interface.

inline constexpr const char* kHalService = "org.freedesktop.Hal";
inline constexpr const char* kHalManagerPath = "/org/freedesktop/Hal/Manager";
inline constexpr const char* kHalManagerInterface = "org.freedesktop.Hal.Manager";
inline constexpr const char* kHalDeviceInterface = "org.freedesktop.Hal.Device";
inline constexpr const char* kHalVolumeInterface = "org.freedesktop.Hal.Device.Volume";

inline constexpr const char* kHalManagerMatch =
    "type='signal',interface='org.freedesktop.Hal.Manager',sender='org.freedesktop.Hal',"
    "path='/org/freedesktop/Hal/Manager'";
inline constexpr const char* kHalDeviceMatch =
    "type='signal',interface='org.freedesktop.Hal.Device',sender='org.freedesktop.Hal'";

/// Every volume's object path contains this.
inline constexpr const char* kHalVolumePrefix = "/org/freedesktop/Hal/devices/volume";

/// The disk of a card that the service saw before it could identify it.
inline constexpr const char* kHalUnknownDisk =
    "/org/freedesktop/Hal/devices/computer_storage_unknown_disk";

inline constexpr const char* kHalParent = "info.parent";
inline constexpr const char* kHalBlockDevice = "block.device";
inline constexpr const char* kHalMmcHost = "mmc_host.host";
inline constexpr const char* kHalVolumeIsMounted = "volume.is_mounted";
inline constexpr const char* kHalVolumeIsMountedReadOnly = "volume.is_mounted_read_only";
