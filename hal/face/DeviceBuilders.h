#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "hal/face/DeviceChain.h"

// How the chains of devices are built: names, parents, and which object has which property, in one
// place for every source of devices. The caller passes the device's place in sysfs and what the
// hardware reports about itself. The functions append to the chain and reserve names there; they
// have no other effect.

namespace hal {

struct UsbDeviceFacts {
  std::string sysfsPath;
  int vendor = 0;
  int product = 0;
  std::string serial;  // empty: the device has none
};

struct ScsiAddress {
  int host = 0;
  int bus = 0;
  int target = 0;
  int lun = 0;
};

struct CardFacts {
  std::string sysfsPath;
  int relativeAddress = 0;
  std::string cid;  // 32 hexadecimal digits
};

/// A node under /dev and its device number.
struct BlockNode {
  std::string path;  // "/dev/sda1"
  int major = 0;
  int minor = 0;
};

struct DiskFacts {
  std::string sysfsPath;
  std::string bus;        // "usb", "mmc", "scsi"
  std::string driveType;  // "disk", "sd_mmc"
  std::string serial;     // what identifies it: "Acme_Voyager_AA99-0:0"; see CardSerial
  BlockNode node;
};

struct VolumeFacts {
  std::string sysfsPath;
  BlockNode node;
  int partition = 1;  // 0: the file system is on the whole disk
  std::string fstype;
  std::string label;
  std::string uuid;
  std::uint64_t sizeBytes = 0;
};

Place AppendUsbDevice(DeviceChain& chain, const UsbDeviceFacts& facts);
Place AppendUsbInterface(DeviceChain& chain, const Place& usbDevice, int number,
                         const std::string& sysfsPath);
/// The parent of a SCSI or SD host, as "platform_NAME" or "pci_NAME".
Place AppendController(DeviceChain& chain, const std::string& bus, const std::string& name,
                       const std::string& sysfsPath);
Place AppendScsiHost(DeviceChain& chain, const Place& parent, const std::string& sysfsPath);
Place AppendScsiDevice(DeviceChain& chain, const Place& host, const ScsiAddress& address,
                       const std::string& sysfsPath);
/// The host of SD cards mmcN.
Place AppendSdHost(DeviceChain& chain, const Place& controller, int number,
                   const std::string& sysfsPath);
Place AppendCard(DeviceChain& chain, const Place& parent, const CardFacts& facts);
/// `name` is that of the storage object, without prefix, if it is not derived from the serial
/// number.
Place AppendDisk(DeviceChain& chain, const Place& parent, const DiskFacts& facts,
                 const std::optional<std::string>& name = std::nullopt);
/// An unmounted volume. `name` is that of its object, without prefix, if it is not the one from
/// VolumeName.
Place AppendVolume(DeviceChain& chain, const Place& disk, const VolumeFacts& facts,
                   const std::optional<std::string>& name = std::nullopt);

/// "0x206bb243": the serial number in an SD card's identification.
std::string CardSerial(const std::string& cid);
/// From the UUID, else from the label, else from partition and size.
std::string VolumeName(const DeviceChain& chain, const VolumeFacts& facts);

/// The three properties of a volume's mount state, in the order in which they change: clients see
/// the newest change, the mount point, first.
PropertyEdits MountState(const std::string& mountPoint, bool mounted, bool readOnly);
/// Whether the service reports the volume as mounted.
bool IsMounted(const Device& volume);

}  // namespace hal
