#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "hal/DeviceChain.h"

// How the chains of devices are built: names, parents, and which property stands on which object.
// Each function appends to the chain and reserves names there; none has another effect.

namespace halsim {

/// A device that others hang on.
struct Place {
  std::string udi;
  std::string sysfsPath;
};

struct UsbOptions {
  int vendor = 0;
  int product = 0;
  std::string serial;
  std::string port;  // "1-1.3"
  int scsiHost = 0;
};

struct DiskOptions {
  std::string bus;        // "usb", "mmc", "scsi"
  std::string driveType;  // "disk", "sd_mmc"
  std::string name;       // of the storage object, without prefix
  std::string node;       // "/dev/sda"
  int major = 0;
  int minor = 0;
  std::optional<int> lun;  // set for the slots of a reader
};

/// A disk as its volumes see it.
struct Disk {
  Place place;
  std::string node;
  int major = 0;
  int minor = 0;
  std::optional<int> lun;
};

struct VolumeOptions {
  int partition = 1;  // 0: the file system is on the whole disk
  std::string fstype = "vfat";
  std::string label;
  std::string uuid;
  std::uint64_t sizeBytes = 1073741824;
  std::optional<std::string> node;  // block.device, if not the disk's with the partition
  std::optional<std::string> name;  // of the object, without prefix
  bool writeProtected = false;
};

/// USB device, interface and SCSI host; the host is where SCSI devices go.
Place AppendUsbHost(DeviceChain& chain, const UsbOptions& options);
/// Controller and SCSI host of no bus that the names tell.
Place AppendPlainScsiHost(DeviceChain& chain, int scsiHost);
Place AppendScsiDevice(DeviceChain& chain, const Place& host, int scsiHost, std::optional<int> lun);

/// Controller and host of SD cards; gives the object that cards have as parent.
Place AppendSdHost(DeviceChain& chain, int number, bool cardsOnController);
Place AppendCard(DeviceChain& chain, const Place& parent, int hostNumber, int relativeAddress,
                 const std::string& cid);

Disk AppendDisk(DeviceChain& chain, const Place& parent, const DiskOptions& options);
Device& AppendVolume(DeviceChain& chain, const Disk& disk, const VolumeOptions& options);

/// "volume2", "volume2@1".
std::string VolumeRole(int partition, std::optional<int> lun);
/// The name of a disk's storage object from the texts that the disk tells.
std::string ScsiDiskName(const std::string& vendor, const std::string& model,
                         const std::string& serial, int lun);
/// The same for an SD card, whose serial number stands in its identification.
std::string CardDiskName(const std::string& cid);

}  // namespace halsim
