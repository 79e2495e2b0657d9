#pragma once

#include <cstdint>
#include <string>

/// One local volume, as the hardware service describes it. The caller sets `VolumeId`,
/// `tHalManager::GetVolumeInfo` fills in the rest as far as it gets.
struct HalVolumeInfo {
  std::string VolumeId;         ///< object path of the volume
  std::string StorageDeviceId;  ///< the disk that holds the volume
  std::string ControllerId;     ///< above the disk: SCSI device (USB storage) or card (SD/MMC)
  std::string HostID;           ///< above that: SCSI host or MMC host
  std::string BusType;          ///< "usb", "mmc" or empty
  std::string FileSystemType;   ///< "vfat", "ext3", ...
  bool IsMounted = false;
  std::string MountPoint;   ///< directory; filled only while mounted
  bool ReadOnly = false;    ///< filled only while mounted
  std::string BlockDevice;  ///< device node
  std::string LinkPath;     ///< the volume's link under "/media"; empty while there is none
  std::string USBHub;       ///< port path of the mass-storage interface, in the form 1-1_3--1_0
  int32_t VendorId = 0;     ///< USB vendor id
  int32_t ProductId = 0;    ///< USB product id
  int32_t MMCHost = 0;      ///< number of the host controller that the card sits in
  std::string Cid;          ///< card identification register, 32 hexadecimal digits
  int32_t SCSIHost = 0;
  int32_t SCSIBus = 0;
  int32_t SCSITarget = 0;
  int32_t SCSILun = 0;
};
