#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "hal/face/DeviceBuilders.h"

// What udev reports about one disk or partition, as plain values. Texts are bytes from the hardware
// and the medium: untrusted, of bounded length, and not necessarily UTF-8.

namespace halkernel {

struct UsbInterfaceFacts {
  std::string sysfsPath;
  int number = 0;
};

struct ScsiHostFacts {
  std::string sysfsPath;  // ends in "/host2"
};

struct ScsiDeviceFacts {
  std::string sysfsPath;
  hal::ScsiAddress address;
};

/// The devices above a disk on USB, the topmost first.
struct UsbChain {
  hal::UsbDeviceFacts device;
  UsbInterfaceFacts interface;
  ScsiHostFacts host;
  ScsiDeviceFacts scsi;
};

struct ControllerFacts {
  std::string sysfsPath;
  std::string bus;   // "platform", "pci"
  std::string name;  // "3f202000.mmc"
};

struct SdHostFacts {
  std::string sysfsPath;
  int number = 0;
};

/// The devices above a memory card, the topmost first.
struct SdChain {
  ControllerFacts controller;
  SdHostFacts host;
  hal::CardFacts card;
  std::string cardType;  // "SD"; "MMC" for a soldered eMMC
};

/// std::monostate for a disk on neither bus.
using Chain = std::variant<std::monostate, UsbChain, SdChain>;

/// What udev's probing found on a disk or partition.
struct FilesystemFacts {
  std::string usage;  // "filesystem", "crypto", "other"; empty if nothing was found
  std::string type;
  std::string uuid;
  std::string encodedLabel;  // "CHARTS\x2024"
};

struct DeviceNumber {
  unsigned major = 0;
  unsigned minor = 0;
  friend auto operator<=>(const DeviceNumber&, const DeviceNumber&) = default;
};

struct BlockFacts {
  std::string sysfsPath;
  std::string diskPath;  // of the disk that a partition is on; a disk's own path
  std::string node;      // "/dev/sda1"
  DeviceNumber number;
  int partition = 0;  // 0: a disk
  std::uint64_t sizeBytes = 0;
  bool hasPartitions = false;  // of a disk: sysfs shows some
  bool optical = false;
  bool leftToOthers = false;  // UDISKS_IGNORE or VOLDRAKE_IGNORE
  /// The medium to which this refers, numbered across all disks. Not set on kernels before 5.15.
  std::optional<std::uint64_t> diskSequence;
  bool mediumChanged = false;  // the event reports a change of the medium
  std::string serial;          // ID_SERIAL
  FilesystemFacts filesystem;
  Chain chain;  // of a disk

  bool IsDisk() const { return partition == 0; }
};

}  // namespace halkernel
