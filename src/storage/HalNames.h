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

// Capabilities that devices are found by.
inline constexpr const char* kHalVolumeCapability = "volume";
inline constexpr const char* kHalMmcHostCapability = "mmc_host";

// Property keys.
inline constexpr const char* kHalParent = "info.parent";
inline constexpr const char* kHalSubsystem = "linux.subsystem";
inline constexpr const char* kHalSysfsPath = "linux.sysfs_path";
inline constexpr const char* kHalBlockDevice = "block.device";
inline constexpr const char* kHalVolumeFileSystemType = "volume.fstype";
inline constexpr const char* kHalVolumeIsMounted = "volume.is_mounted";
inline constexpr const char* kHalVolumeMountPoint = "volume.mount_point";
inline constexpr const char* kHalVolumeIsMountedReadOnly = "volume.is_mounted_read_only";
inline constexpr const char* kHalMmcCid = "mmc.cid";
inline constexpr const char* kHalMmcHost = "mmc_host.host";
inline constexpr const char* kHalUsbVendorId = "usb_device.vendor_id";
inline constexpr const char* kHalUsbProductId = "usb_device.product_id";
inline constexpr const char* kHalScsiHost = "scsi.host";
inline constexpr const char* kHalScsiBus = "scsi.bus";
inline constexpr const char* kHalScsiTarget = "scsi.target";
inline constexpr const char* kHalScsiLun = "scsi.lun";
