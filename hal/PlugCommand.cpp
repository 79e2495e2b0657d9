#include "hal/PlugCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "hal/CommandError.h"

namespace halsim {
namespace {

constexpr int kMaxHost = 9999;
constexpr int kMaxPartition = 255;

/// A number that depends on the text only, so that the same device gets the same identity each
/// time it is plugged (32-bit FNV-1a).
std::uint32_t Fingerprint(const std::string& text) {
  std::uint32_t hash = 2166136261U;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash;
}

std::string DefaultUuid(const std::string& name, std::optional<int> lun, int partition) {
  const std::uint32_t number =
      Fingerprint(name + "/" + std::to_string(lun.value_or(0)) + "/" + std::to_string(partition));
  char text[16];
  std::snprintf(text, sizeof text, "%04X-%04X", number >> 16, number & 0xffffU);
  return text;
}

std::string DefaultCid(const std::string& name) {
  char text[40];
  std::snprintf(text, sizeof text, "1b534d303030303010%08x009a33", Fingerprint(name));
  return text;
}

/// "sda" to "sdz", then "sdaa" and so on.
std::string DiskNode(int index) {
  std::string letters;
  for (int rest = index; rest >= 0; rest = rest / 26 - 1) {
    letters.insert(letters.begin(), static_cast<char>('a' + rest % 26));
  }
  return "/dev/sd" + letters;
}

/// Major and minor number of a disk's node, as far as its name tells them.
std::pair<int, int> NodeNumbers(const std::string& node) {
  constexpr std::string_view kSd = "/dev/sd";
  constexpr std::string_view kMmc = "/dev/mmcblk";
  if (node.starts_with(kMmc)) {
    const auto number = ParseNumber<int>(std::string_view(node).substr(kMmc.size()));
    if (number && *number >= 0 && *number < 32) return {179, 8 * *number};
  }
  if (node.size() == kSd.size() + 1 && node.starts_with(kSd)) return {8, 16 * (node.back() - 'a')};
  return {0, 0};
}

Unit UnitNamed(const std::string& name) {
  Unit unit;
  unit.name = name;
  return unit;
}

bool IsUsbPort(const std::string& port) {
  const std::size_t dash = port.find('-');
  if (dash == std::string::npos || !ParseNumber<unsigned>(port.substr(0, dash))) return false;
  const std::vector<std::string> hops = Split(port.substr(dash + 1), '.');
  return !hops.empty() && std::all_of(hops.begin(), hops.end(), [](const std::string& hop) {
    return ParseNumber<unsigned>(hop).has_value();
  });
}

}  // namespace

void PlugCommand::Run(WordReader& words, bool quiet) {
  static const std::map<std::string, void (PlugCommand::*)(const std::string&, Arguments&, bool)>
      kKinds = {
          {"usb", &PlugCommand::Usb},   {"reader", &PlugCommand::Reader},
          {"scsi", &PlugCommand::Scsi}, {"sd", &PlugCommand::Sd},
          {"host", &PlugCommand::Host}, {"volume", &PlugCommand::Volume},
      };
  const std::string kind = words.Need("what to plug");
  const auto found = kKinds.find(kind);
  if (found == kKinds.end()) throw CommandError("cannot plug " + Quote(kind));
  const std::string name = words.Need("NAME");
  if (kind != "volume") units_.CheckNewName(name);
  Arguments arguments(words.All());
  (this->*found->second)(name, arguments, quiet);
}

void PlugCommand::Usb(const std::string& name, Arguments& arguments, bool quiet) {
  Unit unit = UnitNamed(name);
  const UsbOptions usb = ReadUsb(name, arguments, 0x090c, 0x1000);
  unit.usbPort = usb.port;
  unit.scsiHost = usb.scsiHost;
  const DiskOptions diskOptions = ReadScsiDisk(usb.serial, arguments, "usb");
  DeviceChain chain(tree_, name);
  const Place host = AppendUsbHost(chain, usb);
  const Place device = AppendScsiDevice(chain, host, usb.scsiHost, std::nullopt);
  const Disk disk = AppendDisk(chain, device, diskOptions);
  unit.disks.push_back(disk);
  AppendVolumes(chain, disk, unit, arguments);
  Override(chain, arguments);
  Announce(std::move(unit), chain, quiet);
}

void PlugCommand::Reader(const std::string& name, Arguments& arguments, bool quiet) {
  Unit unit = UnitNamed(name);
  const UsbOptions usb = ReadUsb(name, arguments, 0x0424, 0x4040);
  unit.usbPort = usb.port;
  unit.scsiHost = usb.scsiHost;
  const std::string vendor = arguments.Text("vendor-name").value_or("Acme");
  const std::string model = arguments.Text("model").value_or("Voyager");
  const int luns = arguments.Number("luns", 1, 16).value_or(4);
  arguments.CheckAllUsed();
  DeviceChain chain(tree_, name);
  const Place host = AppendUsbHost(chain, usb);
  for (int lun = 0; lun < luns; ++lun) {
    const Place device = AppendScsiDevice(chain, host, usb.scsiHost, lun);
    const std::string node = FreeNode(unit.disks);
    const auto [major, minor] = NodeNumbers(node);
    unit.disks.push_back(AppendDisk(
        chain, device,
        {"usb", "sd_mmc", ScsiDiskName(vendor, model, usb.serial, lun), node, major, minor, lun}));
  }
  Override(chain, arguments);
  Announce(std::move(unit), chain, quiet);
}

void PlugCommand::Scsi(const std::string& name, Arguments& arguments, bool quiet) {
  Unit unit = UnitNamed(name);
  unit.scsiHost = ReadScsiHost(arguments);
  const std::string serial = arguments.Text("serial").value_or(name);
  const DiskOptions diskOptions = ReadScsiDisk(serial, arguments, "scsi");
  DeviceChain chain(tree_, name);
  const Place host = AppendPlainScsiHost(chain, unit.scsiHost);
  const Place device = AppendScsiDevice(chain, host, unit.scsiHost, std::nullopt);
  const Disk disk = AppendDisk(chain, device, diskOptions);
  unit.disks.push_back(disk);
  AppendVolumes(chain, disk, unit, arguments);
  Override(chain, arguments);
  Announce(std::move(unit), chain, quiet);
}

void PlugCommand::Sd(const std::string& name, Arguments& arguments, bool quiet) {
  Unit unit = UnitNamed(name);
  unit.cardHost = arguments.Number("host", 0, kMaxHost).value_or(0);
  const std::string cid = arguments.Text("cid").value_or(DefaultCid(name));
  const int relativeAddress = arguments.Number("rca", 0, 0xffff).value_or(58916);
  const bool unknown = arguments.Flag("unknown");
  const std::string node =
      arguments.Text("block").value_or("/dev/mmcblk" + std::to_string(unit.cardHost));
  const std::string storageName =
      arguments.Text("storage-name")
          .value_or(unknown ? "computer_storage_unknown_disk" : CardDiskName(cid));
  for (const auto& [other, candidate] : units_.Units()) {
    if (candidate.cardHost == unit.cardHost) {
      throw CommandError("there is a card in this host: " + Quote(other));
    }
  }
  Unit newHost = UnitNamed("host" + std::to_string(unit.cardHost));
  newHost.sdHost = unit.cardHost;
  DeviceChain hostChain(tree_, newHost.name);
  const Unit* host = FindSdHost(unit.cardHost);
  if (host == nullptr) {
    units_.CheckNewName(newHost.name);
    newHost.cardPlace = AppendSdHost(hostChain, unit.cardHost, false);
  }

  DeviceChain chain(tree_, name);
  const Place cardPlace = host != nullptr ? host->cardPlace : newHost.cardPlace;
  const Place card = AppendCard(chain, cardPlace, unit.cardHost, relativeAddress, cid);
  const auto [major, minor] = NodeNumbers(node);
  const Disk disk = AppendDisk(chain, {unknown ? kRootDevice : card.udi, card.sysfsPath},
                               {"mmc", "sd_mmc", storageName, node, major, minor, std::nullopt});
  unit.disks.push_back(disk);
  AppendVolumes(chain, disk, unit, arguments);
  Override(chain, arguments);
  if (host == nullptr) {
    const DeviceTree::Silence silence(tree_);
    Announce(std::move(newHost), hostChain, true);
  }
  Announce(std::move(unit), chain, quiet);
}

void PlugCommand::Host(const std::string& name, Arguments& arguments, bool quiet) {
  int number = 0;
  while (FindSdHost(number) != nullptr) ++number;
  number = arguments.Number("number", 0, kMaxHost).value_or(number);
  const std::string cardsOn = arguments.Text("cards-on").value_or("host");
  arguments.CheckAllUsed();
  if (FindSdHost(number) != nullptr) {
    throw CommandError("there is an SD host " + std::to_string(number) + " already");
  }
  if (cardsOn != "host" && cardsOn != "controller") {
    throw CommandError("cards-on is host or controller");
  }
  Unit unit = UnitNamed(name);
  unit.sdHost = number;
  DeviceChain chain(tree_, name);
  unit.cardPlace = AppendSdHost(chain, number, cardsOn == "controller");
  Override(chain, arguments);
  Announce(std::move(unit), chain, quiet);
}

void PlugCommand::Volume(const std::string& name, Arguments& arguments, bool quiet) {
  Unit& unit = units_.Need(name);
  const int lun = arguments.Number("lun", 0, 15).value_or(0);
  const auto disk = std::find_if(unit.disks.begin(), unit.disks.end(), [&](const Disk& candidate) {
    return candidate.lun.value_or(0) == lun;
  });
  if (disk == unit.disks.end()) {
    throw CommandError(Quote(name) + " has no disk with lun " + std::to_string(lun));
  }
  const std::optional<int> number = arguments.Number("partition", 1, kMaxPartition);
  const bool wholeDisk = arguments.Flag("whole-disk");
  if (wholeDisk && number) throw CommandError("whole-disk has no partition");
  const int partition = wholeDisk ? 0 : number.value_or(FreePartition(unit, disk->lun));
  const std::string role = VolumeRole(partition, disk->lun);
  if (HasRole(unit, role)) throw CommandError("there is a " + Quote(role) + " already");

  const VolumeOptions options = ReadVolume(name, disk->lun, partition, arguments);
  std::map<std::string, Premount> mounted;
  const bool flag = arguments.Flag("mounted");
  const std::optional<std::string> place = arguments.Text("mounted");
  arguments.CheckAllUsed();
  DeviceChain chain(tree_, name);
  const Device& volume = AppendVolume(chain, *disk, options);
  if (flag || place) mounted[volume.udi] = {place.value_or("")};
  Override(chain, arguments);
  List(chain);
  units_.Extend(unit, chain, mounted, quiet);
}

UsbOptions PlugCommand::ReadUsb(const std::string& name, Arguments& arguments, int vendor,
                                int product) {
  UsbOptions options;
  options.vendor = arguments.Number("vendor", 0, 0xffff).value_or(vendor);
  options.product = arguments.Number("product", 0, 0xffff).value_or(product);
  options.serial = arguments.Text("serial").value_or(name);
  options.port = arguments.Text("port").value_or(FreePort());
  if (!IsUsbPort(options.port)) throw CommandError(Quote(options.port) + " is no USB port");
  for (const auto& [other, unit] : units_.Units()) {
    if (unit.usbPort == options.port) {
      throw CommandError("port " + options.port + " is taken by " + Quote(other));
    }
  }
  options.scsiHost = ReadScsiHost(arguments);
  return options;
}

int PlugCommand::ReadScsiHost(Arguments& arguments) const {
  const auto taken = [this](int number) {
    return std::any_of(units_.Units().begin(), units_.Units().end(),
                       [number](const auto& entry) { return entry.second.scsiHost == number; });
  };
  int number = 0;
  while (taken(number)) ++number;
  number = arguments.Number("scsi-host", 0, kMaxHost).value_or(number);
  if (taken(number)) throw CommandError("SCSI host " + std::to_string(number) + " is taken");
  return number;
}

DiskOptions PlugCommand::ReadScsiDisk(const std::string& serial, Arguments& arguments,
                                      const std::string& bus) {
  const std::string vendor = arguments.Text("vendor-name").value_or("Acme");
  const std::string model = arguments.Text("model").value_or("Voyager");
  DiskOptions options;
  options.bus = bus;
  options.driveType = "disk";
  options.name = arguments.Text("storage-name").value_or(ScsiDiskName(vendor, model, serial, 0));
  options.node = arguments.Text("block").value_or(FreeNode({}));
  std::tie(options.major, options.minor) = NodeNumbers(options.node);
  return options;
}

/// The volumes of a new disk, and the end of reading the arguments.
void PlugCommand::AppendVolumes(DeviceChain& chain, const Disk& disk, Unit& unit,
                                Arguments& arguments) {
  const bool wholeDisk = arguments.Flag("whole-disk");
  const std::optional<int> given = arguments.Number("partitions", 0, 15);
  if (wholeDisk && given) throw CommandError("whole-disk has no partitions");
  const int first = wholeDisk ? 0 : 1;
  const int last = wholeDisk ? 0 : given.value_or(1);
  const VolumeOptions options = ReadVolume(unit.name, disk.lun, first, arguments);
  const bool flag = arguments.Flag("mounted");
  const std::optional<std::string> place = arguments.Text("mounted");
  arguments.CheckAllUsed();
  for (int partition = first; partition <= last; ++partition) {
    if (partition != first) {
      VolumeOptions further;
      further.partition = partition;
      further.uuid = DefaultUuid(unit.name, disk.lun, partition);
      AppendVolume(chain, disk, further);
      continue;
    }
    const Device& volume = AppendVolume(chain, disk, options);
    if (flag || place) unit.mounted[volume.udi] = {place.value_or("")};
  }
}

VolumeOptions PlugCommand::ReadVolume(const std::string& name, std::optional<int> lun,
                                      int partition, Arguments& arguments) const {
  VolumeOptions options;
  options.partition = partition;
  options.fstype = arguments.Text("fstype").value_or(options.fstype);
  options.label = arguments.Text("label").value_or("");
  options.uuid = arguments.Text("uuid").value_or(DefaultUuid(name, lun, partition));
  options.sizeBytes = arguments.Size("size").value_or(options.sizeBytes);
  options.node = arguments.Text("volume-block");
  options.name = arguments.Text("volume-name");
  options.writeProtected = arguments.Flag("readonly");
  return options;
}

void PlugCommand::Override(DeviceChain& chain, const Arguments& arguments) {
  for (const auto& [role, edit] : arguments.Overrides()) {
    Device* device = chain.Find(role);
    if (device == nullptr) throw CommandError("there is no new " + Quote(role));
    if (edit.second) {
      device->properties.insert_or_assign(edit.first, *edit.second);
    } else {
      device->properties.erase(edit.first);
    }
  }
}

const Unit* PlugCommand::FindSdHost(int number) const {
  for (const auto& [name, unit] : units_.Units()) {
    if (unit.sdHost == number) return &unit;
  }
  return nullptr;
}

std::string PlugCommand::FreePort() const {
  for (int number = 1;; ++number) {
    std::string port = "1-1." + std::to_string(number);
    const bool taken =
        std::any_of(units_.Units().begin(), units_.Units().end(),
                    [&port](const auto& entry) { return entry.second.usbPort == port; });
    if (!taken) return port;
  }
}

std::string PlugCommand::FreeNode(const std::vector<Disk>& alsoTaken) const {
  const auto among = [](const std::vector<Disk>& disks, const std::string& node) {
    return std::any_of(disks.begin(), disks.end(),
                       [&node](const Disk& disk) { return disk.node == node; });
  };
  for (int index = 0;; ++index) {
    std::string node = DiskNode(index);
    const bool taken =
        std::any_of(units_.Units().begin(), units_.Units().end(),
                    [&](const auto& entry) { return among(entry.second.disks, node); });
    if (!taken && !among(alsoTaken, node)) return node;
  }
}

int PlugCommand::FreePartition(const Unit& unit, std::optional<int> lun) const {
  int partition = 1;
  while (HasRole(unit, VolumeRole(partition, lun))) ++partition;
  return partition;
}

bool PlugCommand::HasRole(const Unit& unit, const std::string& role) const {
  const auto same = [&](const Device& device) {
    return device.unit == unit.name && device.role == role;
  };
  return std::any_of(tree_.Devices().begin(), tree_.Devices().end(), same) ||
         std::any_of(unit.coming.begin(), unit.coming.end(), same);
}

void PlugCommand::Announce(Unit unit, DeviceChain& chain, bool quiet) {
  List(chain);
  units_.Plug(std::move(unit), chain, quiet);
}

void PlugCommand::List(const DeviceChain& chain) {
  for (const Device& device : chain.Devices()) {
    tape_.Line("device " + device.unit + ":" + device.role + " " + device.udi);
  }
}

}  // namespace halsim
