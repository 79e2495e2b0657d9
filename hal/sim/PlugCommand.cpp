#include "hal/sim/PlugCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "hal/face/HalNames.h"
#include "hal/face/Text.h"
#include "hal/sim/CommandError.h"

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

/// A disk's node with its numbers, as far as its name gives them.
hal::BlockNode NodeAt(const std::string& path) {
  constexpr std::string_view kSd = "/dev/sd";
  constexpr std::string_view kMmc = "/dev/mmcblk";
  if (path.starts_with(kMmc)) {
    const auto number = hal::ParseNumber<int>(std::string_view(path).substr(kMmc.size()));
    if (number && *number >= 0 && *number < 32) return {path, 179, 8 * *number};
  }
  if (path.size() == kSd.size() + 1 && path.starts_with(kSd)) {
    return {path, 8, 16 * (path.back() - 'a')};
  }
  return {path, 0, 0};
}

/// What a SCSI disk is identified by, from the texts that it gives.
std::string DiskSerial(const std::string& vendor, const std::string& model,
                       const std::string& serial, int lun) {
  return vendor + "_" + model + "_" + serial + "_0_" + std::to_string(lun);
}

Plugged Named(const std::string& name) {
  Plugged plugged;
  plugged.name = name;
  return plugged;
}

bool IsUsbPort(const std::string& port) {
  const std::size_t dash = port.find('-');
  if (dash == std::string::npos || !hal::ParseNumber<unsigned>(port.substr(0, dash))) return false;
  const std::vector<std::string> hops = hal::Split(port.substr(dash + 1), '.');
  return !hops.empty() && std::all_of(hops.begin(), hops.end(), [](const std::string& hop) {
    return hal::ParseNumber<unsigned>(hop).has_value();
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
  if (kind != "volume") plugged_.CheckNewName(name);
  Arguments arguments(words.All());
  (this->*found->second)(name, arguments, quiet);
}

void PlugCommand::Usb(const std::string& name, Arguments& arguments, bool quiet) {
  Plugged plugged = Named(name);
  const UsbOptions usb = ReadUsb(name, arguments, 0x090c, 0x1000);
  plugged.usbPort = usb.port;
  plugged.scsiHost = usb.scsiHost;
  const DiskOptions diskOptions = ReadScsiDisk(usb.serial, arguments, "usb");
  PluggedChain chain(tree_, name);
  const hal::Place host = chain.AddUsbHost(usb);
  const hal::Place device = chain.AddScsiDevice(host, usb.scsiHost, std::nullopt);
  const Disk disk = chain.AddDisk(device, diskOptions);
  plugged.disks.push_back(disk);
  AddVolumes(chain, disk, plugged, arguments);
  Override(chain, arguments);
  Announce(std::move(plugged), chain, quiet);
}

void PlugCommand::Reader(const std::string& name, Arguments& arguments, bool quiet) {
  Plugged plugged = Named(name);
  const UsbOptions usb = ReadUsb(name, arguments, 0x0424, 0x4040);
  plugged.usbPort = usb.port;
  plugged.scsiHost = usb.scsiHost;
  const std::string vendor = arguments.Text("vendor-name").value_or("Acme");
  const std::string model = arguments.Text("model").value_or("Voyager");
  const int luns = arguments.Number("luns", 1, 16).value_or(4);
  arguments.CheckAllUsed();
  PluggedChain chain(tree_, name);
  const hal::Place host = chain.AddUsbHost(usb);
  for (int lun = 0; lun < luns; ++lun) {
    const hal::Place device = chain.AddScsiDevice(host, usb.scsiHost, lun);
    const hal::BlockNode node = NodeAt(FreeNode(plugged.disks));
    plugged.disks.push_back(chain.AddDisk(
        device,
        {"usb", "disk", DiskSerial(vendor, model, usb.serial, lun), node, lun, std::nullopt}));
  }
  Override(chain, arguments);
  Announce(std::move(plugged), chain, quiet);
}

void PlugCommand::Scsi(const std::string& name, Arguments& arguments, bool quiet) {
  Plugged plugged = Named(name);
  plugged.scsiHost = ReadScsiHost(arguments);
  const std::string serial = arguments.Text("serial").value_or(name);
  const DiskOptions diskOptions = ReadScsiDisk(serial, arguments, "scsi");
  PluggedChain chain(tree_, name);
  const hal::Place host = chain.AddPlainScsiHost(plugged.scsiHost);
  const hal::Place device = chain.AddScsiDevice(host, plugged.scsiHost, std::nullopt);
  const Disk disk = chain.AddDisk(device, diskOptions);
  plugged.disks.push_back(disk);
  AddVolumes(chain, disk, plugged, arguments);
  Override(chain, arguments);
  Announce(std::move(plugged), chain, quiet);
}

void PlugCommand::Sd(const std::string& name, Arguments& arguments, bool quiet) {
  Plugged plugged = Named(name);
  plugged.cardHost = arguments.Number("host", 0, kMaxHost).value_or(0);
  const std::string cid = arguments.Text("cid").value_or(DefaultCid(name));
  const int relativeAddress = arguments.Number("rca", 0, 0xffff).value_or(58916);
  const bool unknown = arguments.Flag("unknown");
  const std::string node =
      arguments.Text("block").value_or("/dev/mmcblk" + std::to_string(plugged.cardHost));
  std::optional<std::string> storageName = arguments.Text("storage-name");
  if (!storageName && unknown) storageName = "computer_storage_unknown_disk";
  for (const auto& [other, candidate] : plugged_.All()) {
    if (candidate.cardHost == plugged.cardHost) {
      throw CommandError("there is a card in this host: " + Quote(other));
    }
  }
  Plugged newHost = Named("host" + std::to_string(plugged.cardHost));
  newHost.sdHost = plugged.cardHost;
  PluggedChain hostChain(tree_, newHost.name);
  const Plugged* host = FindSdHost(plugged.cardHost);
  if (host == nullptr) {
    plugged_.CheckNewName(newHost.name);
    newHost.cardPlace = hostChain.AddSdHost(plugged.cardHost, false);
  }

  PluggedChain chain(tree_, name);
  const hal::Place cardPlace = host != nullptr ? host->cardPlace : newHost.cardPlace;
  const hal::Place card = chain.AddCard(cardPlace, plugged.cardHost, relativeAddress, cid);
  const Disk disk = chain.AddDisk(
      {unknown ? hal::kRootDevice : card.udi, card.sysfsPath},
      {"mmc", "sd_mmc", hal::CardSerial(cid), NodeAt(node), std::nullopt, storageName});
  plugged.disks.push_back(disk);
  AddVolumes(chain, disk, plugged, arguments);
  Override(chain, arguments);
  if (host == nullptr) {
    const hal::DeviceTree::Silence silence(tree_);
    Announce(std::move(newHost), hostChain, true);
  }
  Announce(std::move(plugged), chain, quiet);
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
    throw CommandError("cards-on must be host or controller");
  }
  Plugged plugged = Named(name);
  plugged.sdHost = number;
  PluggedChain chain(tree_, name);
  plugged.cardPlace = chain.AddSdHost(number, cardsOn == "controller");
  Override(chain, arguments);
  Announce(std::move(plugged), chain, quiet);
}

void PlugCommand::Volume(const std::string& name, Arguments& arguments, bool quiet) {
  Plugged& plugged = plugged_.Need(name);
  const int lun = arguments.Number("lun", 0, 15).value_or(0);
  const auto disk =
      std::find_if(plugged.disks.begin(), plugged.disks.end(),
                   [&](const Disk& candidate) { return candidate.lun.value_or(0) == lun; });
  if (disk == plugged.disks.end()) {
    throw CommandError(Quote(name) + " has no disk with lun " + std::to_string(lun));
  }
  const std::optional<int> number = arguments.Number("partition", 1, kMaxPartition);
  const bool wholeDisk = arguments.Flag("whole-disk");
  if (wholeDisk && number) throw CommandError("whole-disk has no partition");
  const int partition = wholeDisk ? 0 : number.value_or(FreePartition(plugged, disk->lun));
  const std::string role = VolumeRole(partition, disk->lun);
  if (plugged_.HasRole(name, role)) throw CommandError("there is a " + Quote(role) + " already");

  const VolumeOptions options = ReadVolume(name, disk->lun, partition, arguments);
  std::map<std::string, Premount> mounted;
  const bool flag = arguments.Flag("mounted");
  const std::optional<std::string> place = arguments.Text("mounted");
  arguments.CheckAllUsed();
  PluggedChain chain(tree_, name);
  const hal::Place volume = chain.AddVolume(*disk, options);
  if (flag || place) mounted[volume.udi] = {place.value_or("")};
  Override(chain, arguments);
  List(chain);
  plugged_.Extend(plugged, chain, mounted, quiet);
}

UsbOptions PlugCommand::ReadUsb(const std::string& name, Arguments& arguments, int vendor,
                                int product) {
  UsbOptions options;
  options.vendor = arguments.Number("vendor", 0, 0xffff).value_or(vendor);
  options.product = arguments.Number("product", 0, 0xffff).value_or(product);
  options.serial = arguments.Text("serial").value_or(name);
  options.port = arguments.Text("port").value_or(FreePort());
  if (!IsUsbPort(options.port))
    throw CommandError(Quote(options.port) + " is not a valid USB port");
  for (const auto& [other, plugged] : plugged_.All()) {
    if (plugged.usbPort == options.port) {
      throw CommandError("port " + options.port + " is taken by " + Quote(other));
    }
  }
  options.scsiHost = ReadScsiHost(arguments);
  return options;
}

int PlugCommand::ReadScsiHost(Arguments& arguments) const {
  const auto taken = [this](int number) {
    return std::any_of(plugged_.All().begin(), plugged_.All().end(),
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
  options.serial = DiskSerial(vendor, model, serial, 0);
  options.name = arguments.Text("storage-name");
  options.node = NodeAt(arguments.Text("block").value_or(FreeNode({})));
  return options;
}

/// The volumes of a new disk, and the end of reading the arguments.
void PlugCommand::AddVolumes(PluggedChain& chain, const Disk& disk, Plugged& plugged,
                             Arguments& arguments) {
  const bool wholeDisk = arguments.Flag("whole-disk");
  const std::optional<int> given = arguments.Number("partitions", 0, 15);
  if (wholeDisk && given) throw CommandError("whole-disk has no partitions");
  const int first = wholeDisk ? 0 : 1;
  const int last = wholeDisk ? 0 : given.value_or(1);
  const VolumeOptions options = ReadVolume(plugged.name, disk.lun, first, arguments);
  const bool flag = arguments.Flag("mounted");
  const std::optional<std::string> place = arguments.Text("mounted");
  arguments.CheckAllUsed();
  for (int partition = first; partition <= last; ++partition) {
    if (partition != first) {
      VolumeOptions further;
      further.partition = partition;
      further.uuid = DefaultUuid(plugged.name, disk.lun, partition);
      chain.AddVolume(disk, further);
      continue;
    }
    const hal::Place volume = chain.AddVolume(disk, options);
    if (flag || place) plugged.mounted[volume.udi] = {place.value_or("")};
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

void PlugCommand::Override(PluggedChain& chain, const Arguments& arguments) {
  for (const auto& [role, edit] : arguments.Overrides()) {
    hal::Device* device = chain.FindRole(role);
    if (device == nullptr) throw CommandError("the new devices have no " + Quote(role));
    if (edit.second) {
      device->properties.insert_or_assign(edit.first, *edit.second);
    } else {
      device->properties.erase(edit.first);
    }
  }
}

const Plugged* PlugCommand::FindSdHost(int number) const {
  for (const auto& [name, plugged] : plugged_.All()) {
    if (plugged.sdHost == number) return &plugged;
  }
  return nullptr;
}

std::string PlugCommand::FreePort() const {
  for (int number = 1;; ++number) {
    std::string port = "1-1." + std::to_string(number);
    const bool taken =
        std::any_of(plugged_.All().begin(), plugged_.All().end(),
                    [&port](const auto& entry) { return entry.second.usbPort == port; });
    if (!taken) return port;
  }
}

std::string PlugCommand::FreeNode(const std::vector<Disk>& alsoTaken) const {
  const auto among = [](const std::vector<Disk>& disks, const std::string& node) {
    return std::any_of(disks.begin(), disks.end(),
                       [&node](const Disk& disk) { return disk.node.path == node; });
  };
  for (int index = 0;; ++index) {
    std::string node = DiskNode(index);
    const bool taken =
        std::any_of(plugged_.All().begin(), plugged_.All().end(),
                    [&](const auto& entry) { return among(entry.second.disks, node); });
    if (!taken && !among(alsoTaken, node)) return node;
  }
}

int PlugCommand::FreePartition(const Plugged& plugged, std::optional<int> lun) const {
  int partition = 1;
  while (plugged_.HasRole(plugged.name, VolumeRole(partition, lun))) ++partition;
  return partition;
}

void PlugCommand::Announce(Plugged plugged, PluggedChain& chain, bool quiet) {
  List(chain);
  plugged_.Plug(std::move(plugged), chain, quiet);
}

void PlugCommand::List(const PluggedChain& chain) {
  for (const hal::Device& device : chain.Devices()) {
    const DeviceLabel& label = chain.LabelOf(device.udi);
    output_.Line("device " + label.plugged + ":" + label.role + " " + device.udi);
  }
}

}  // namespace halsim
