#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "hal/face/DeviceBuilders.h"
#include "hal/sim/DeviceIndex.h"

namespace halsim {

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
  std::string serial;     // what the storage object is named after
  hal::BlockNode node;
  std::optional<int> lun;           // set for the slots of a reader
  std::optional<std::string> name;  // of the storage object, without prefix
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

/// A disk that was plugged, as its volumes see it.
struct Disk {
  hal::Place place;
  hal::BlockNode node;
  std::optional<int> lun;
};

/// The new devices of one plug command, parents first, with their roles and their places in sysfs.
/// Object paths are reserved from the creation of a device until the chain is destroyed or taken.
class PluggedChain {
 public:
  PluggedChain(hal::DeviceTree& tree, std::string plugged)
      : chain_(tree, hal::HardwareTexts::AsGiven), plugged_(std::move(plugged)) {}

  /// Adds USB device, interface and SCSI host; returns the host, the parent of SCSI devices.
  hal::Place AddUsbHost(const UsbOptions& options);
  /// Adds a controller and SCSI host whose names contain no bus.
  hal::Place AddPlainScsiHost(int scsiHost);
  hal::Place AddScsiDevice(const hal::Place& host, int scsiHost, std::optional<int> lun);
  /// Adds controller and host of SD cards; returns the parent of the cards.
  hal::Place AddSdHost(int number, bool cardsOnController);
  hal::Place AddCard(const hal::Place& parent, int hostNumber, int relativeAddress,
                     const std::string& cid);
  Disk AddDisk(const hal::Place& parent, const DiskOptions& options);
  hal::Place AddVolume(const Disk& disk, const VolumeOptions& options);

  const std::list<hal::Device>& Devices() const { return chain_.Devices(); }
  const DeviceLabel& LabelOf(const std::string& udi) const { return labels_.at(udi); }
  /// The device with this role; "volume" and "volume@L" mean the first volume there. Null if there
  /// is none.
  hal::Device* FindRole(const std::string& role);

  /// Returns all devices and adds their labels to the index.
  std::list<hal::Device> TakeInto(DeviceIndex& index);

 private:
  /// Sets the role of the device at this place; returns the place.
  hal::Place Label(const std::string& role, const hal::Place& place, bool writeProtected = false);

  hal::DeviceChain chain_;
  const std::string plugged_;
  std::map<std::string, DeviceLabel> labels_;
};

/// "volume2", "volume2@1".
std::string VolumeRole(int partition, std::optional<int> lun);

}  // namespace halsim
