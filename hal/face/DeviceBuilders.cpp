#include "hal/face/DeviceBuilders.h"

#include <cstdio>

#include "hal/face/HalNames.h"

namespace hal {
namespace {

using Texts = std::vector<std::string>;

const Texts kMountOptions = {
    "ro",         "rw",     "sync",   "async",   "dirsync", "noatime", "nodiratime", "relatime",
    "exec",       "noexec", "quiet",  "remount", "utf8",    "flush",   "shortname=", "codepage=",
    "iocharset=", "umask=", "dmask=", "fmask=",  "uid=",    "gid="};

std::string Hex(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number));
  return text;
}

std::string NameBelow(const Place& parent, const std::string& suffix) {
  return parent.udi.substr(std::string(kDevicePrefix).size()) + suffix;
}

void SetBlock(Device& device, const BlockNode& node, bool isVolume, const std::string& storage) {
  device.properties["block.device"] = node.path;
  device.properties["block.major"] = node.major;
  device.properties["block.minor"] = node.minor;
  device.properties["block.is_volume"] = isVolume;
  device.properties["block.storage_device"] = storage;
}

}  // namespace

Place AppendUsbDevice(DeviceChain& chain, const UsbDeviceFacts& facts) {
  const std::string serial = facts.serial.empty() ? "noserial" : chain.InName(facts.serial);
  const std::string name =
      "usb_device_" + Hex(facts.vendor) + "_" + Hex(facts.product) + "_" + serial;
  Device& device = chain.Append(DeviceKind::UsbDevice, name, kRootDevice, facts.sysfsPath);
  device.properties["linux.subsystem"] = std::string("usb");
  device.properties["usb_device.vendor_id"] = facts.vendor;
  device.properties["usb_device.product_id"] = facts.product;
  return {device.udi, facts.sysfsPath};
}

Place AppendUsbInterface(DeviceChain& chain, const Place& usbDevice, int number,
                         const std::string& sysfsPath) {
  Device& interface =
      chain.Append(DeviceKind::UsbInterface, NameBelow(usbDevice, "_if" + std::to_string(number)),
                   usbDevice.udi, sysfsPath);
  interface.properties["linux.subsystem"] = std::string("usb");
  return {interface.udi, sysfsPath};
}

Place AppendController(DeviceChain& chain, const std::string& bus, const std::string& name,
                       const std::string& sysfsPath) {
  const Device& controller =
      chain.Append(DeviceKind::Controller, bus + "_" + chain.InName(name), kRootDevice, sysfsPath);
  return {controller.udi, sysfsPath};
}

Place AppendScsiHost(DeviceChain& chain, const Place& parent, const std::string& sysfsPath) {
  Device& host =
      chain.Append(DeviceKind::ScsiHost, NameBelow(parent, "_scsi_host"), parent.udi, sysfsPath);
  host.properties["info.capabilities"] = Texts{"scsi_host"};
  return {host.udi, sysfsPath};
}

Place AppendScsiDevice(DeviceChain& chain, const Place& host, const ScsiAddress& address,
                       const std::string& sysfsPath) {
  const std::string name = NameBelow(host, "_scsi_device_lun" + std::to_string(address.lun));
  Device& device = chain.Append(DeviceKind::ScsiDevice, name, host.udi, sysfsPath);
  device.properties["linux.subsystem"] = std::string("scsi");
  device.properties["scsi.host"] = address.host;
  device.properties["scsi.bus"] = address.bus;
  device.properties["scsi.target"] = address.target;
  device.properties["scsi.lun"] = address.lun;
  return {device.udi, sysfsPath};
}

Place AppendSdHost(DeviceChain& chain, const Place& controller, int number,
                   const std::string& sysfsPath) {
  Device& host = chain.Append(DeviceKind::SdHost, NameBelow(controller, "_mmc_host"),
                              controller.udi, sysfsPath);
  host.properties["info.capabilities"] = Texts{"mmc_host"};
  host.properties["mmc_host.host"] = number;
  return {host.udi, sysfsPath};
}

Place AppendCard(DeviceChain& chain, const Place& parent, const CardFacts& facts) {
  const std::string name =
      NameBelow(parent, "_mmc_card_rca" + std::to_string(facts.relativeAddress));
  Device& card = chain.Append(DeviceKind::Card, name, parent.udi, facts.sysfsPath);
  card.properties["linux.subsystem"] = std::string("mmc");
  card.properties["mmc.cid"] = facts.cid;
  return {card.udi, facts.sysfsPath};
}

Place AppendDisk(DeviceChain& chain, const Place& parent, const DiskFacts& facts,
                 const std::optional<std::string>& name) {
  const std::string serialName = "storage_serial_" + chain.InName(facts.serial);
  Device& storage =
      chain.Append(DeviceKind::Storage, name.value_or(serialName), parent.udi, facts.sysfsPath);
  storage.properties["info.capabilities"] = Texts{"storage", "block"};
  SetBlock(storage, facts.node, false, storage.udi);
  storage.properties["storage.bus"] = facts.bus;
  storage.properties["storage.drive_type"] = facts.driveType;
  storage.properties["storage.removable"] = facts.bus != "scsi";
  storage.properties["storage.hotpluggable"] = facts.bus != "scsi";
  return {storage.udi, facts.sysfsPath};
}

Place AppendVolume(DeviceChain& chain, const Place& disk, const VolumeFacts& facts,
                   const std::optional<std::string>& name) {
  Device& volume = chain.Append(DeviceKind::Volume, name ? *name : VolumeName(chain, facts),
                                disk.udi, facts.sysfsPath);
  volume.properties["info.capabilities"] = Texts{"volume", "block"};
  SetBlock(volume, facts.node, true, disk.udi);
  volume.properties["volume.fstype"] = facts.fstype;
  volume.properties["volume.label"] = facts.label;
  volume.properties["volume.uuid"] = facts.uuid;
  for (const auto& [key, value] : MountState("", false, false)) volume.properties[key] = *value;
  volume.properties["volume.mount.valid_options"] = kMountOptions;
  volume.properties["volume.is_partition"] = facts.partition != 0;
  volume.properties["volume.partition.number"] = facts.partition;
  volume.properties["volume.size"] = facts.sizeBytes;
  return {volume.udi, facts.sysfsPath};
}

std::string CardSerial(const std::string& cid) {
  // Bytes 9 to 12 of the card identification register.
  return "0x" + (cid.size() >= 26 ? cid.substr(18, 8) : cid);
}

std::string VolumeName(const DeviceChain& chain, const VolumeFacts& facts) {
  if (!facts.uuid.empty()) return "volume_uuid_" + chain.InName(facts.uuid);
  if (!facts.label.empty()) return "volume_label_" + chain.InName(facts.label);
  const std::string size = "size_" + std::to_string(facts.sizeBytes);
  if (facts.partition == 0) return "volume_" + size;
  return "volume_part" + std::to_string(facts.partition) + "_" + size;
}

PropertyEdits MountState(const std::string& mountPoint, bool mounted, bool readOnly) {
  return {{kVolumeIsMounted, mounted},
          {kVolumeIsMountedReadOnly, readOnly},
          {kVolumeMountPoint, mountPoint}};
}

bool IsMounted(const Device& volume) {
  const bool* mounted = volume.Get<bool>(kVolumeIsMounted);
  return mounted != nullptr && *mounted;
}

}  // namespace hal
