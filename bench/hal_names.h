/* Names that the benchmark's hardware service and its bare client share. */
#ifndef BENCH_HAL_NAMES_H
#define BENCH_HAL_NAMES_H

#define HAL_SERVICE "org.freedesktop.Hal"
#define HAL_MANAGER_PATH "/org/freedesktop/Hal/Manager"
#define HAL_MANAGER "org.freedesktop.Hal.Manager"
#define HAL_DEVICE "org.freedesktop.Hal.Device"
#define HAL_VOLUME "org.freedesktop.Hal.Device.Volume"
#define HAL_DEVICES "/org/freedesktop/Hal/devices/"

#define VOLUME_PREFIX HAL_DEVICES "volume_uuid_"
#define STORAGE_PREFIX HAL_DEVICES "storage_serial_"
#define CONTROLLER_PREFIX HAL_DEVICES "usb_device_scsi_device_"
#define SCSI_HOST_PREFIX HAL_DEVICES "usb_device_scsi_host_"
#define INTERFACE_PREFIX HAL_DEVICES "usb_interface_"
#define USB_DEVICE_PREFIX HAL_DEVICES "usb_parent_"

enum { PATH_BYTES = 96 };

#endif
