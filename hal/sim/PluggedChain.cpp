#include "hal/sim/PluggedChain.h"

#include <cstdio>

#include "hal/face/Text.h"

namespace halsim {
namespace {

/// "scsi_device@2" for a reader's slot.
std::string SlotRole(const std::string& role, std::optional<int> lun) {
  return lun ? role + "@" + std::to_string(*lun) : role;
}

/// "/sys/devices/platform/ehci/usb1/1-1/1-1.3" for port 1-1.3: each hub on the way is a directory.
std::string UsbDevicePath(const std::string& port) {
  const std::size_t dash = port.find('-');
  std::string path = "/sys/devices/platform/ehci/usb" + port.substr(0, dash);
  for (std::size_t dot = port.find('.'); dot != std::string::npos; dot = port.find('.', dot + 1)) {
    path += "/" + port.substr(0, dot);
  }
  return path + "/" + port;
}

std::string ScsiHostPath(const hal::Place& parent, int number) {
  return parent.sysfsPath + "/host" + std::to_string(number);
}

/// "/dev/sda" and partition 1 make "/dev/sda1", "/dev/mmcblk0" makes "/dev/mmcblk0p1"; partition 0
/// is the disk itself.
std::string PartitionNode(const std::string& node, int partition) {
  if (partition == 0) return node;
  // A name that ends in a digit needs a separator.
  const bool digit = !node.empty() && node.back() >= '0' && node.back() <= '9';
  return node + (digit ? "p" : "") + std::to_string(partition);
}

}  // namespace

hal::Place PluggedChain::AddUsbHost(const UsbOptions& options) {
  const std::string path = UsbDevicePath(options.port);
  const hal::Place device =
      Label("usb_device",
            hal::AppendUsbDevice(chain_, {path, options.vendor, options.product, options.serial}));
  const hal::Place interface =
      Label("usb_interface",
            hal::AppendUsbInterface(chain_, device, 0, path + "/" + options.port + ":1.0"));
  return Label("scsi_host",
               hal::AppendScsiHost(chain_, interface, ScsiHostPath(interface, options.scsiHost)));
}

hal::Place PluggedChain::AddPlainScsiHost(int scsiHost) {
  const std::string number = std::to_string(scsiHost);
  const hal::Place controller =
      Label("controller", hal::AppendController(chain_, "platform", "ahci_" + number,
                                                "/sys/devices/platform/ahci." + number));
  return Label("scsi_host",
               hal::AppendScsiHost(chain_, controller, ScsiHostPath(controller, scsiHost)));
}

hal::Place PluggedChain::AddScsiDevice(const hal::Place& host, int scsiHost,
                                       std::optional<int> lun) {
  const std::string target = std::to_string(scsiHost) + ":0:0";
  const std::string path =
      host.sysfsPath + "/target" + target + "/" + target + ":" + std::to_string(lun.value_or(0));
  return Label(SlotRole("scsi_device", lun),
               hal::AppendScsiDevice(chain_, host, {scsiHost, 0, 0, lun.value_or(0)}, path));
}

hal::Place PluggedChain::AddSdHost(int number, bool cardsOnController) {
  const std::string text = std::to_string(number);
  const hal::Place controller =
      Label("controller", hal::AppendController(chain_, "platform", "sdhci_" + text,
                                                "/sys/devices/platform/sdhci." + text));
  const hal::Place host = Label(
      "host",
      hal::AppendSdHost(chain_, controller, number, controller.sysfsPath + "/mmc_host/mmc" + text));
  return {cardsOnController ? controller.udi : host.udi, host.sysfsPath};
}

hal::Place PluggedChain::AddCard(const hal::Place& parent, int hostNumber, int relativeAddress,
                                 const std::string& cid) {
  char address[16];
  std::snprintf(address, sizeof address, "%04x", static_cast<unsigned>(relativeAddress));
  const std::string path = parent.sysfsPath + "/mmc" + std::to_string(hostNumber) + ":" + address;
  return Label("card", hal::AppendCard(chain_, parent, {path, relativeAddress, cid}));
}

Disk PluggedChain::AddDisk(const hal::Place& parent, const DiskOptions& options) {
  const std::string path = parent.sysfsPath + "/block/" + hal::BaseName(options.node.path);
  const hal::Place place =
      Label(SlotRole("storage", options.lun),
            hal::AppendDisk(chain_, parent,
                            {path, options.bus, options.driveType, options.serial, options.node},
                            options.name));
  return {place, options.node, options.lun};
}

hal::Place PluggedChain::AddVolume(const Disk& disk, const VolumeOptions& options) {
  const std::string node = PartitionNode(disk.node.path, options.partition);
  hal::VolumeFacts facts;
  facts.sysfsPath = disk.place.sysfsPath;
  if (options.partition != 0) facts.sysfsPath += "/" + hal::BaseName(node);
  facts.node = {options.node.value_or(node), disk.node.major, disk.node.minor + options.partition};
  facts.partition = options.partition;
  facts.fstype = options.fstype;
  facts.label = options.label;
  facts.uuid = options.uuid;
  facts.sizeBytes = options.sizeBytes;
  return Label(VolumeRole(options.partition, disk.lun),
               hal::AppendVolume(chain_, disk.place, facts, options.name), options.writeProtected);
}

hal::Place PluggedChain::Label(const std::string& role, const hal::Place& place,
                               bool writeProtected) {
  labels_.insert_or_assign(place.udi, DeviceLabel{plugged_, role, writeProtected});
  return place;
}

hal::Device* PluggedChain::FindRole(const std::string& role) {
  for (const hal::Device& device : Devices()) {
    if (RoleMeans(role, LabelOf(device.udi).role)) return chain_.Find(device.udi);
  }
  return nullptr;
}

std::list<hal::Device> PluggedChain::TakeInto(DeviceIndex& index) {
  for (auto& [udi, label] : labels_) index.Add(udi, std::move(label));
  labels_.clear();
  return chain_.Take();
}

std::string VolumeRole(int partition, std::optional<int> lun) {
  return SlotRole("volume" + std::to_string(partition), lun);
}

}  // namespace halsim
