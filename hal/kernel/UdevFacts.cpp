#include "hal/kernel/UdevFacts.h"

#include <dirent.h>
#include <libudev.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "glib/Handles.h"
#include "hal/kernel/Log.h"

namespace halkernel {
namespace {

/// What a text of the hardware or the medium may have; more is cut off.
constexpr std::size_t kMaxTextBytes = 512;
constexpr std::uint64_t kSectorBytes = 512;

using DirectoryPointer = glib::Pointer<DIR, closedir>;

std::string Bounded(const char* text) {
  return std::string(std::string_view(text != nullptr ? text : "").substr(0, kMaxTextBytes));
}

std::string_view KernelName(udev_device* device) {
  const char* name = udev_device_get_sysname(device);
  return name != nullptr ? name : "";
}

/// What the library has just returned for the name. A device need not have it; that it cannot be
/// read is logged.
std::string Answer(udev_device* device, const char* name, const char* value) {
  if (value == nullptr && errno != ENOENT) {
    const char* reason = std::strerror(errno);
    Log(LOG_WARNING, std::string(KernelName(device)) + ": " + name + " cannot be read: " + reason);
  }
  return Bounded(value);
}

std::string Property(udev_device* device, const char* name) {
  return Answer(device, name, udev_device_get_property_value(device, name));
}

bool IsSet(udev_device* device, const char* name) {
  return Property(device, name) == "1";
}

/// Without the blanks around it that the hardware pads it with.
std::string Attribute(udev_device* device, const char* name) {
  const std::string text = Answer(device, name, udev_device_get_sysattr_value(device, name));
  const std::size_t first = text.find_first_not_of(" \t\n");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\n") - first + 1);
}

std::string Path(udev_device* device) {
  const char* path = udev_device_get_syspath(device);
  return path != nullptr ? path : "";
}

template <typename Number>
std::optional<Number> Parse(std::string_view text, int base = 10) {
  Number value{};
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, base);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

/// The number behind the last colon, as in "mmc0:e624".
template <typename Number>
Number LastNumber(std::string_view name, int base) {
  return Parse<Number>(name.substr(name.rfind(':') + 1), base).value_or(0);
}

/// What follows "host" or "mmc".
int TrailingNumber(std::string_view name) {
  const std::size_t digits = name.find_first_of("0123456789");
  return digits == std::string_view::npos ? 0 : Parse<int>(name.substr(digits)).value_or(0);
}

/// "2:0:0:1"
hal::ScsiAddress AddressOf(std::string_view name) {
  hal::ScsiAddress address;
  for (int* part : {&address.host, &address.bus, &address.target, &address.lun}) {
    const std::size_t colon = name.find(':');
    *part = Parse<int>(name.substr(0, colon)).value_or(0);
    name = colon == std::string_view::npos ? std::string_view() : name.substr(colon + 1);
  }
  return address;
}

udev_device* Parent(udev_device* device, const char* subsystem, const char* type) {
  return udev_device_get_parent_with_subsystem_devtype(device, subsystem, type);
}

/// One of a USB device's two ids, which the kernel always has; without it the device is served all
/// the same.
int UsbId(udev_device* device, const char* name) {
  const std::optional<int> id = Parse<int>(Attribute(device, name), 16);
  if (!id) {
    Log(LOG_WARNING,
        std::string(KernelName(device)) + ": " + name + " is no number and counts as 0");
  }
  return id.value_or(0);
}

std::optional<UsbChain> UsbChainOf(udev_device* disk) {
  udev_device* scsi = Parent(disk, "scsi", "scsi_device");
  udev_device* host = Parent(disk, "scsi", "scsi_host");
  udev_device* interface = Parent(disk, "usb", "usb_interface");
  udev_device* device = Parent(disk, "usb", "usb_device");
  if (scsi == nullptr || host == nullptr || interface == nullptr || device == nullptr) {
    return std::nullopt;
  }
  UsbChain chain;
  chain.device.sysfsPath = Path(device);
  chain.device.vendor = UsbId(device, "idVendor");
  chain.device.product = UsbId(device, "idProduct");
  chain.device.serial = Attribute(device, "serial");
  const std::string number = Attribute(interface, "bInterfaceNumber");
  chain.interface = {Path(interface), Parse<int>(number, 16).value_or(0)};
  chain.host = {Path(host)};
  chain.scsi = {Path(scsi), AddressOf(KernelName(scsi))};
  return chain;
}

std::optional<SdChain> SdChainOf(udev_device* disk) {
  udev_device* card = Parent(disk, "mmc", nullptr);
  udev_device* host = Parent(disk, "mmc_host", nullptr);
  udev_device* controller = host != nullptr ? udev_device_get_parent(host) : nullptr;
  if (card == nullptr || controller == nullptr) return std::nullopt;
  const char* bus = udev_device_get_subsystem(controller);
  SdChain chain;
  chain.controller = {Path(controller), Bounded(bus), std::string(KernelName(controller))};
  chain.host = {Path(host), TrailingNumber(KernelName(host))};
  chain.card.sysfsPath = Path(card);
  chain.card.relativeAddress = LastNumber<int>(KernelName(card), 16);
  chain.card.cid = Attribute(card, "cid");
  chain.cardType = Attribute(card, "type");
  return chain;
}

Chain ChainOf(udev_device* disk) {
  // A reader on USB may have an SD host of its own: what is nearest to the disk counts.
  if (std::optional<SdChain> chain = SdChainOf(disk)) return *std::move(chain);
  if (std::optional<UsbChain> chain = UsbChainOf(disk)) return *std::move(chain);
  return std::monostate();
}

/// Whether sysfs shows partitions: directories of the disk with an attribute "partition".
bool HasPartitions(const std::string& diskPath) {
  const DirectoryPointer directory(opendir(diskPath.c_str()));
  if (!directory) return false;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    const std::string mark = diskPath + "/" + entry->d_name + "/partition";
    if (access(mark.c_str(), F_OK) == 0) return true;
  }
  return false;
}

void ReadDisk(udev_device* device, BlockFacts& facts) {
  facts.diskPath = facts.sysfsPath;
  facts.hasPartitions = HasPartitions(facts.sysfsPath);
  facts.optical = IsSet(device, "ID_CDROM");
  facts.serial = Property(device, "ID_SERIAL");
  facts.chain = ChainOf(device);
}

/// False when its disk is not to be found.
bool ReadPartition(udev_device* device, BlockFacts& facts) {
  udev_device* disk = Parent(device, "block", "disk");
  if (disk == nullptr) return false;
  facts.diskPath = Path(disk);
  const std::string number = Property(device, "PARTN");
  facts.partition =
      Parse<int>(number.empty() ? Attribute(device, "partition") : number).value_or(0);
  return facts.partition > 0;
}

}  // namespace

std::optional<BlockFacts> FactsOf(udev_device* device) {
  BlockFacts facts;
  facts.sysfsPath = Path(device);
  facts.node = Property(device, "DEVNAME");
  if (facts.sysfsPath.empty() || facts.node.empty()) return std::nullopt;
  facts.number = {Parse<unsigned>(Property(device, "MAJOR")).value_or(0),
                  Parse<unsigned>(Property(device, "MINOR")).value_or(0)};
  const char* type = udev_device_get_devtype(device);
  if (type == nullptr) return std::nullopt;
  if (std::string_view(type) == "disk") {
    ReadDisk(device, facts);
  } else if (std::string_view(type) != "partition" || !ReadPartition(device, facts)) {
    return std::nullopt;
  }
  const auto sectors = Parse<std::uint64_t>(Attribute(device, "size")).value_or(0);
  facts.sizeBytes = sectors <= UINT64_MAX / kSectorBytes ? sectors * kSectorBytes : 0;
  facts.leftToOthers = IsSet(device, "UDISKS_IGNORE") || IsSet(device, "VOLDRAKE_IGNORE");
  facts.diskSequence = Parse<std::uint64_t>(Property(device, "DISKSEQ"));
  facts.mediumChanged = IsSet(device, "DISK_MEDIA_CHANGE");
  facts.filesystem = {Property(device, "ID_FS_USAGE"), Property(device, "ID_FS_TYPE"),
                      Property(device, "ID_FS_UUID"), Property(device, "ID_FS_LABEL_ENC")};
  return facts;
}

}  // namespace halkernel
