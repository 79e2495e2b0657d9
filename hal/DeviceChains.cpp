#include "hal/DeviceChains.h"

#include <cstdio>

namespace halsim {
namespace {

const std::vector<std::string> kMountOptions = {
    "ro",         "rw",     "sync",   "async",   "dirsync", "noatime", "nodiratime", "relatime",
    "exec",       "noexec", "quiet",  "remount", "utf8",    "flush",   "shortname=", "codepage=",
    "iocharset=", "umask=", "dmask=", "fmask=",  "uid=",    "gid="};

std::string Hex(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number));
  return text;
}

std::string LunSuffix(std::optional<int> lun) {
  return lun ? "@" + std::to_string(*lun) : std::string();
}

/// "/sys/devices/platform/ehci/usb1/1-1/1-1.3" for port 1-1.3: each hub on the way is a directory.
std::string UsbSysfsPath(const std::string& port) {
  const std::size_t dash = port.find('-');
  std::string path = "/sys/devices/platform/ehci/usb" + port.substr(0, dash);
  for (std::size_t dot = port.find('.'); dot != std::string::npos; dot = port.find('.', dot + 1)) {
    path += "/" + port.substr(0, dot);
  }
  return path + "/" + port;
}

/// sda and partition 1 make sda1; a name that ends in a digit needs a p: mmcblk0p1.
std::string PartitionNode(const std::string& node, int partition) {
  if (partition == 0) return node;
  const bool digit = !node.empty() && node.back() >= '0' && node.back() <= '9';
  return node + (digit ? "p" : "") + std::to_string(partition);
}

std::string NodeName(const std::string& node) {
  return node.substr(node.rfind('/') + 1);
}

std::string VolumeName(const VolumeOptions& options) {
  if (options.name) return *options.name;
  if (!options.uuid.empty()) return "volume_uuid_" + options.uuid;
  if (!options.label.empty()) return "volume_label_" + options.label;
  const std::string size = "size_" + std::to_string(options.sizeBytes);
  if (options.partition == 0) return "volume_" + size;
  return "volume_part" + std::to_string(options.partition) + "_" + size;
}

void SetBlock(Device& device, const std::string& node, int major, int minor, bool isVolume,
              const std::string& storage) {
  device.properties["block.device"] = node;
  device.properties["block.major"] = major;
  device.properties["block.minor"] = minor;
  device.properties["block.is_volume"] = isVolume;
  device.properties["block.storage_device"] = storage;
}

std::string NameBelow(const Place& parent, const std::string& suffix) {
  return parent.udi.substr(std::string(kDevicePrefix).size()) + suffix;
}

Place ScsiHostAt(DeviceChain& chain, const Place& parent, int number) {
  const std::string path = parent.sysfsPath + "/host" + std::to_string(number);
  Device& host = chain.Append(DeviceKind::ScsiHost, "scsi_host", NameBelow(parent, "_scsi_host"),
                              parent.udi, path);
  host.properties["info.capabilities"] = std::vector<std::string>{"scsi_host"};
  return {host.udi, path};
}

}  // namespace

Place AppendUsbHost(DeviceChain& chain, const UsbOptions& options) {
  const std::string path = UsbSysfsPath(options.port);
  const std::string name =
      "usb_device_" + Hex(options.vendor) + "_" + Hex(options.product) + "_" + options.serial;
  Device& usb = chain.Append(DeviceKind::UsbDevice, "usb_device", name, kRootDevice, path);
  usb.properties["linux.subsystem"] = std::string("usb");
  usb.properties["usb_device.vendor_id"] = options.vendor;
  usb.properties["usb_device.product_id"] = options.product;

  const Place device{usb.udi, path};
  const std::string interfacePath = path + "/" + options.port + ":1.0";
  Device& interface = chain.Append(DeviceKind::UsbInterface, "usb_interface",
                                   NameBelow(device, "_if0"), device.udi, interfacePath);
  interface.properties["linux.subsystem"] = std::string("usb");
  return ScsiHostAt(chain, {interface.udi, interfacePath}, options.scsiHost);
}

Place AppendPlainScsiHost(DeviceChain& chain, int scsiHost) {
  const std::string path = "/sys/devices/platform/ahci." + std::to_string(scsiHost);
  const Device& controller =
      chain.Append(DeviceKind::Controller, "controller",
                   "platform_ahci_" + std::to_string(scsiHost), kRootDevice, path);
  return ScsiHostAt(chain, {controller.udi, path}, scsiHost);
}

Place AppendScsiDevice(DeviceChain& chain, const Place& host, int scsiHost,
                       std::optional<int> lun) {
  const std::string number = std::to_string(lun.value_or(0));
  const std::string target = std::to_string(scsiHost) + ":0:0";
  const std::string path = host.sysfsPath + "/target" + target + "/" + target + ":" + number;
  Device& device = chain.Append(DeviceKind::ScsiDevice, "scsi_device" + LunSuffix(lun),
                                NameBelow(host, "_scsi_device_lun" + number), host.udi, path);
  device.properties["linux.subsystem"] = std::string("scsi");
  device.properties["scsi.host"] = scsiHost;
  device.properties["scsi.bus"] = 0;
  device.properties["scsi.target"] = 0;
  device.properties["scsi.lun"] = lun.value_or(0);
  return {device.udi, path};
}

Place AppendSdHost(DeviceChain& chain, int number, bool cardsOnController) {
  const std::string text = std::to_string(number);
  const Device& controller =
      chain.Append(DeviceKind::Controller, "controller", "platform_sdhci_" + text, kRootDevice,
                   "/sys/devices/platform/sdhci." + text);
  const Place above{controller.udi, "/sys/devices/platform/sdhci." + text};
  const std::string path = above.sysfsPath + "/mmc_host/mmc" + text;
  Device& host =
      chain.Append(DeviceKind::SdHost, "host", NameBelow(above, "_mmc_host"), above.udi, path);
  host.properties["info.capabilities"] = std::vector<std::string>{"mmc_host"};
  host.properties["mmc_host.host"] = number;
  return {cardsOnController ? above.udi : host.udi, path};
}

Place AppendCard(DeviceChain& chain, const Place& parent, int hostNumber, int relativeAddress,
                 const std::string& cid) {
  char address[16];
  std::snprintf(address, sizeof address, "%04x", static_cast<unsigned>(relativeAddress));
  const std::string path = parent.sysfsPath + "/mmc" + std::to_string(hostNumber) + ":" + address;
  Device& card = chain.Append(DeviceKind::Card, "card",
                              NameBelow(parent, "_mmc_card_rca" + std::to_string(relativeAddress)),
                              parent.udi, path);
  card.properties["linux.subsystem"] = std::string("mmc");
  card.properties["mmc.cid"] = cid;
  return {card.udi, path};
}

Disk AppendDisk(DeviceChain& chain, const Place& parent, const DiskOptions& options) {
  const std::string path = parent.sysfsPath + "/block/" + NodeName(options.node);
  Device& storage = chain.Append(DeviceKind::Storage, "storage" + LunSuffix(options.lun),
                                 options.name, parent.udi, path);
  storage.properties["info.capabilities"] = std::vector<std::string>{"storage", "block"};
  SetBlock(storage, options.node, options.major, options.minor, false, storage.udi);
  storage.properties["storage.bus"] = options.bus;
  storage.properties["storage.drive_type"] = options.driveType;
  storage.properties["storage.removable"] = options.bus != "scsi";
  storage.properties["storage.hotpluggable"] = options.bus != "scsi";
  return {{storage.udi, path}, options.node, options.major, options.minor, options.lun};
}

Device& AppendVolume(DeviceChain& chain, const Disk& disk, const VolumeOptions& options) {
  const std::string node = PartitionNode(disk.node, options.partition);
  std::string path = disk.place.sysfsPath;
  if (options.partition != 0) path += "/" + NodeName(node);
  Device& volume = chain.Append(DeviceKind::Volume, VolumeRole(options.partition, disk.lun),
                                VolumeName(options), disk.place.udi, path);
  volume.writeProtected = options.writeProtected;
  volume.properties["info.capabilities"] = std::vector<std::string>{"volume", "block"};
  SetBlock(volume, options.node.value_or(node), disk.major, disk.minor + options.partition, true,
           disk.place.udi);
  volume.properties["volume.fstype"] = options.fstype;
  volume.properties["volume.label"] = options.label;
  volume.properties["volume.uuid"] = options.uuid;
  volume.properties["volume.is_mounted"] = false;
  volume.properties["volume.is_mounted_read_only"] = false;
  volume.properties["volume.mount_point"] = std::string();
  volume.properties["volume.mount.valid_options"] = kMountOptions;
  volume.properties["volume.is_partition"] = options.partition != 0;
  volume.properties["volume.partition.number"] = options.partition;
  volume.properties["volume.size"] = options.sizeBytes;
  return volume;
}

std::string VolumeRole(int partition, std::optional<int> lun) {
  return "volume" + std::to_string(partition) + LunSuffix(lun);
}

std::string ScsiDiskName(const std::string& vendor, const std::string& model,
                         const std::string& serial, int lun) {
  return "storage_serial_" + vendor + "_" + model + "_" + serial + "_0_" + std::to_string(lun);
}

std::string CardDiskName(const std::string& cid) {
  // Bytes 9 to 12 of the card identification register are the serial number.
  const std::string serial = cid.size() >= 26 ? cid.substr(18, 8) : cid;
  return "storage_serial_0x" + serial;
}

}  // namespace halsim
