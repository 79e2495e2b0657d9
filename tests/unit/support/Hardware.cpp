#include "support/Hardware.h"

namespace hardware {

using halkernel::BlockFacts;

BlockFacts Stick(const std::string& disk, int host, int lun) {
  const std::string device = "/sys/devices/platform/ehci/usb1/1-1/1-1.3";
  const std::string interface = device + "/1-1.3:1.0";
  const std::string scsiHost = interface + "/host" + std::to_string(host);
  const std::string target = std::to_string(host) + ":0:0";
  const std::string scsi = scsiHost + "/target" + target + "/" + target + ":" + std::to_string(lun);
  halkernel::UsbChain chain;
  chain.device = {device, 0x090c, 0x1000, "AA99"};
  chain.interface = {interface, 0};
  chain.host = {scsiHost};
  chain.scsi = {scsi, {host, 0, 0, lun}};
  BlockFacts facts;
  facts.sysfsPath = facts.diskPath = scsi + "/block/" + disk;
  facts.node = "/dev/" + disk;
  facts.number = {8, static_cast<unsigned>(disk.back() - 'a') * 16};
  facts.sizeBytes = 64 * 1024 * 1024;
  facts.diskSequence = 7;
  facts.serial = "Acme_Voyager_AA99-0:" + std::to_string(lun);
  facts.chain = chain;
  return facts;
}

BlockFacts Card(const std::string& type) {
  const std::string controller = "/sys/devices/platform/sdhci.0";
  const std::string host = controller + "/mmc_host/mmc0";
  halkernel::SdChain chain;
  chain.controller = {controller, "platform", "sdhci.0"};
  chain.host = {host, 0};
  chain.card = {host + "/mmc0:e624", 0xe624, "035344534433322080206bb243014100"};
  chain.cardType = type;
  BlockFacts facts;
  facts.sysfsPath = facts.diskPath = chain.card.sysfsPath + "/block/mmcblk0";
  facts.node = "/dev/mmcblk0";
  facts.number = {179, 0};
  facts.sizeBytes = 128 * 1024 * 1024;
  facts.diskSequence = 9;
  facts.chain = chain;
  return facts;
}

BlockFacts Partition(const BlockFacts& disk, int number, const std::string& uuid) {
  const std::string name = disk.sysfsPath.substr(disk.sysfsPath.rfind('/') + 1);
  const bool digit = name.back() >= '0' && name.back() <= '9';
  const std::string own = name + (digit ? "p" : "") + std::to_string(number);
  BlockFacts facts;
  facts.sysfsPath = disk.sysfsPath + "/" + own;
  facts.diskPath = disk.sysfsPath;
  facts.node = "/dev/" + own;
  facts.number = {disk.number.major, disk.number.minor + static_cast<unsigned>(number)};
  facts.partition = number;
  facts.sizeBytes = 32 * 1024 * 1024;
  facts.diskSequence = disk.diskSequence;
  facts.filesystem = {"filesystem", "vfat", uuid, "CHARTS\\x2024"};
  return facts;
}

BlockFacts OfMedium(BlockFacts facts, std::uint64_t medium) {
  facts.diskSequence = medium;
  return facts;
}

halkernel::MountEntry MountOf(const BlockFacts& facts, const std::string& target, bool readOnly) {
  return {facts.number, facts.node, target, readOnly, false};
}

}  // namespace hardware
