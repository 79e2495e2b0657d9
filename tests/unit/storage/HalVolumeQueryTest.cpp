// The record of a volume: what is asked for it, in which order, and what comes of it.

#include <gmock/gmock.h>

#include <optional>

#include "storage/HalVolumeInfo.h"
#include "storage/tHalManager.h"
#include "support/CapturedLog.h"
#include "support/ScriptedBus.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

namespace {

using tTexts = std::vector<std::string>;
using tDevices = decltype(tScriptedBus::devices);

/// A stick behind a hub. Only the USB device, two above the SCSI host, has ids.
tDevices Stick() {
  return {
      {"/volume",
       {{"info.parent", "/storage"},
        {"volume.fstype", "vfat"},
        {"block.device", "/dev/sda1"},
        {"volume.is_mounted", false},
        {"volume.mount_point", "/media/sda1"},
        {"volume.is_mounted_read_only", true}}},
      {"/storage", {{"info.parent", "/usb_scsi_device"}}},
      {"/usb_scsi_device",
       {{"info.parent", "/scsi_host"},
        {"linux.subsystem", "scsi"},
        {"scsi.host", 4},
        {"scsi.bus", 5},
        {"scsi.target", 6},
        {"scsi.lun", 7}}},
      {"/scsi_host",
       {{"info.parent", "/interface"}, {"linux.sysfs_path", "/sys/1-1.3/1-1.3:1.0/host4"}}},
      {"/interface", {{"info.parent", "/usb_device"}}},
      {"/usb_device", {{"usb_device.vendor_id", 0x90c}, {"usb_device.product_id", 0x1000}}},
  };
}

/// A card in a slot.
tDevices Card() {
  return {
      {"/volume",
       {{"info.parent", "/storage"},
        {"volume.fstype", "ext3"},
        {"block.device", "/dev/mmcblk1p1"},
        {"volume.is_mounted", false}}},
      {"/storage", {{"info.parent", "/mmc_card"}}},
      {"/mmc_card", {{"info.parent", "/host"}, {"mmc.cid", "0353"}}},
      {"/host", {{"mmc_host.host", 1}}},
  };
}

/// A record in one line: bus, port path, ids, card, address, file system.
std::string Shown(const HalVolumeInfo& info) {
  const auto number = [](int32_t value) { return std::to_string(value); };
  return info.BusType + " <" + info.USBHub + "> " + number(info.VendorId) + ":" +
         number(info.ProductId) + " <" + info.Cid + "> " + number(info.MMCHost) + " " +
         number(info.SCSIHost) + "." + number(info.SCSIBus) + "." + number(info.SCSITarget) + "." +
         number(info.SCSILun) + " " + info.FileSystemType + " " + info.BlockDevice + " " +
         (info.IsMounted ? "mounted" : "unmounted");
}

class HalVolumeQuery : public testing::Test {
 protected:
  void SetUp() override {
    Bus() = {};
    ConnectToScriptedBus();
  }

  /// The record; null when the volume cannot be described.
  static std::optional<HalVolumeInfo> Described(const tDevices& devices) {
    Bus().devices = devices;
    Bus().calls.clear();
    HalVolumeInfo info;
    info.VolumeId = "/volume";
    if (!tHalManager::getInstance()->GetVolumeInfo(info)) return std::nullopt;
    return info;
  }

  const tCapturedLog m_Log;
};

constexpr const char* kStick = "usb <1-1_3--1_0> 2316:4096 <> 0 4.5.6.7 vfat /dev/sda1 unmounted";
constexpr const char* kCard = "mmc <> 0:0 <0353> 1 0.0.0.0 ext3 /dev/mmcblk1p1 unmounted";

TEST_F(HalVolumeQuery, OfAStickGoesOnWithoutPortIdsAndAddress) {
  const struct {
    const char* device;
    const char* missing;
    const char* record;  // null: cannot be described
  } cases[] = {
      {"/volume", "", kStick},
      {"/volume", "info.parent", nullptr},
      {"/storage", "info.parent", nullptr},
      {"/usb_scsi_device", "info.parent", nullptr},
      {"/volume", "volume.fstype", nullptr},
      {"/volume", "block.device", nullptr},
      {"/volume", "volume.is_mounted", nullptr},
      {"/volume", "volume.mount_point", kStick},
      {"/volume", "volume.is_mounted_read_only", kStick},
      {"/scsi_host", "linux.sysfs_path", "usb <> 0:0 <> 0 4.5.6.7 vfat /dev/sda1 unmounted"},
      {"/scsi_host", "info.parent", "usb <1-1_3--1_0> 0:0 <> 0 4.5.6.7 vfat /dev/sda1 unmounted"},
      {"/usb_device", "usb_device.vendor_id",
       "usb <1-1_3--1_0> 0:0 <> 0 4.5.6.7 vfat /dev/sda1 unmounted"},
      {"/usb_device", "usb_device.product_id",
       "usb <1-1_3--1_0> 2316:0 <> 0 4.5.6.7 vfat /dev/sda1 unmounted"},
      {"/usb_scsi_device", "linux.subsystem",
       "usb <1-1_3--1_0> 2316:4096 <> 0 0.0.0.0 vfat /dev/sda1 unmounted"},
      {"/usb_scsi_device", "scsi.host",
       "usb <1-1_3--1_0> 2316:4096 <> 0 0.0.0.0 vfat /dev/sda1 unmounted"},
      {"/usb_scsi_device", "scsi.bus",
       "usb <1-1_3--1_0> 2316:4096 <> 0 4.0.0.0 vfat /dev/sda1 unmounted"},
      {"/usb_scsi_device", "scsi.target",
       "usb <1-1_3--1_0> 2316:4096 <> 0 4.5.0.0 vfat /dev/sda1 unmounted"},
      {"/usb_scsi_device", "scsi.lun",
       "usb <1-1_3--1_0> 2316:4096 <> 0 4.5.6.0 vfat /dev/sda1 unmounted"},
  };
  for (const auto& [device, missing, record] : cases) {
    tDevices devices = Stick();
    devices[device].erase(missing);
    const std::optional<HalVolumeInfo> info = Described(devices);
    EXPECT_EQ(info ? Shown(*info) : "none", record != nullptr ? record : "none")
        << device << " " << missing;
  }
}

TEST_F(HalVolumeQuery, OfAStickAsksInThisOrder) {
  ASSERT_TRUE(Described(Stick()));
  const tTexts unmounted = Bus().calls;
  EXPECT_THAT(
      unmounted,
      ElementsAre("GetPropertyString volume info.parent", "GetPropertyString storage info.parent",
                  "GetPropertyString usb_scsi_device info.parent",
                  "GetPropertyString scsi_host linux.sysfs_path",
                  "GetPropertyInteger scsi_host usb_device.vendor_id",
                  "GetPropertyString scsi_host info.parent",
                  "GetPropertyInteger interface usb_device.vendor_id",
                  "GetPropertyString interface info.parent",
                  "GetPropertyInteger usb_device usb_device.vendor_id",
                  "GetPropertyInteger scsi_host usb_device.product_id",
                  "GetPropertyString scsi_host info.parent",
                  "GetPropertyInteger interface usb_device.product_id",
                  "GetPropertyString interface info.parent",
                  "GetPropertyInteger usb_device usb_device.product_id",
                  "GetPropertyString usb_scsi_device linux.subsystem",
                  "GetPropertyInteger usb_scsi_device scsi.host",
                  "GetPropertyInteger usb_scsi_device scsi.bus",
                  "GetPropertyInteger usb_scsi_device scsi.target",
                  "GetPropertyInteger usb_scsi_device scsi.lun",
                  "GetPropertyString volume volume.fstype", "GetPropertyString volume block.device",
                  "GetPropertyBoolean volume volume.is_mounted"));
  tDevices devices = Stick();
  devices["/volume"]["volume.is_mounted"] = true;
  const std::optional<HalVolumeInfo> info = Described(devices);
  ASSERT_TRUE(info);
  tTexts mounted = unmounted;
  mounted.emplace_back("GetPropertyString volume volume.mount_point");
  mounted.emplace_back("GetPropertyBoolean volume volume.is_mounted_read_only");
  EXPECT_THAT(Bus().calls, ElementsAreArray(mounted));
  EXPECT_EQ(info->StorageDeviceId, "/storage");
  EXPECT_EQ(info->ControllerId, "/usb_scsi_device");
  EXPECT_EQ(info->HostID, "/scsi_host");
  EXPECT_EQ(info->MountPoint, "/media/sda1");
  EXPECT_TRUE(info->IsMounted && info->ReadOnly);
}

TEST_F(HalVolumeQuery, OfAMountedVolumeNeedsItsMountPointAndItsMode) {
  for (const char* missing : {"volume.mount_point", "volume.is_mounted_read_only"}) {
    tDevices devices = Stick();
    devices["/volume"]["volume.is_mounted"] = true;
    devices["/volume"].erase(missing);
    EXPECT_FALSE(Described(devices)) << missing;
  }
}

TEST_F(HalVolumeQuery, OfAVolumeThatIsNotMountedLeavesMountPointAndModeAsTheyAre) {
  Bus().devices = Stick();
  HalVolumeInfo info;
  info.VolumeId = "/volume";
  info.MountPoint = "/media/before";
  info.ReadOnly = true;
  ASSERT_TRUE(tHalManager::getInstance()->GetVolumeInfo(info));
  EXPECT_EQ(info.MountPoint, "/media/before");
  EXPECT_TRUE(info.ReadOnly);
}

TEST_F(HalVolumeQuery, APathOfAnotherFormOnlyLeavesThePortUnknown) {
  tDevices devices = Stick();
  devices["/scsi_host"]["linux.sysfs_path"] = "/sys/1-1.3/x";
  const std::optional<HalVolumeInfo> info = Described(devices);
  ASSERT_TRUE(info);
  EXPECT_EQ(Shown(*info), "usb <> 2316:4096 <> 0 4.5.6.7 vfat /dev/sda1 unmounted");
}

TEST_F(HalVolumeQuery, OnlyADeviceOfTheScsiSubsystemHasAnAddress) {
  const struct {
    const char* subsystem;
    bool address;
  } cases[] = {{"scsi", true}, {"my_scsi_2", true}, {"usb", false}, {"SCSI", false}, {"", false}};
  for (const auto& [subsystem, address] : cases) {
    tDevices devices = Stick();
    devices["/usb_scsi_device"]["linux.subsystem"] = subsystem;
    const std::optional<HalVolumeInfo> info = Described(devices);
    ASSERT_TRUE(info) << subsystem;
    EXPECT_EQ(info->SCSILun, address ? 7 : 0) << subsystem;
    EXPECT_EQ(testing::Value(Bus().calls, Contains("GetPropertyInteger usb_scsi_device scsi.host")),
              address)
        << subsystem;
  }
}

TEST_F(HalVolumeQuery, TheControllersNameTellsTheBus) {
  const struct {
    const char* controller;
    const char* record;  // null: cannot be described
  } cases[] = {
      {"/usb_scsi_device", kStick},
      {"/usb_device_if0", "usb <1-1_3--1_0> 2316:4096 <> 0 0.0.0.0 vfat /dev/sda1 unmounted"},
      {"/scsi_device", " <> 0:0 <> 0 4.5.6.7 vfat /dev/sda1 unmounted"},
      {"/USB_MMC_SCSI", " <> 0:0 <> 0 0.0.0.0 vfat /dev/sda1 unmounted"},
      // It has no CID, as a card must; the USB queries are made first all the same.
      {"/usb_mmc", nullptr},
  };
  for (const auto& [controller, record] : cases) {
    tDevices devices = Stick();
    devices["/storage"]["info.parent"] = controller;
    devices[controller] = devices["/usb_scsi_device"];
    const std::optional<HalVolumeInfo> info = Described(devices);
    EXPECT_EQ(info ? Shown(*info) : "none", record != nullptr ? record : "none") << controller;
  }
  EXPECT_THAT(Bus().calls, Contains("GetPropertyInteger usb_device usb_device.product_id"));
  EXPECT_THAT(Bus().calls, Not(Contains("GetPropertyString volume volume.fstype")));
}

TEST_F(HalVolumeQuery, OnBothBusesItIsAUsbVolumeWithTheCardsIdentity) {
  tDevices devices = Stick();
  devices["/storage"]["info.parent"] = "/usb_mmc_scsi";
  devices["/usb_mmc_scsi"] = devices["/usb_scsi_device"];
  devices["/usb_mmc_scsi"]["mmc.cid"] = "0353";
  devices["/scsi_host"]["mmc_host.host"] = 3;
  const std::optional<HalVolumeInfo> info = Described(devices);
  ASSERT_TRUE(info);
  EXPECT_EQ(Shown(*info), "usb <1-1_3--1_0> 2316:4096 <0353> 3 4.5.6.7 vfat /dev/sda1 unmounted");
  EXPECT_EQ(Bus().calls.at(3), "GetPropertyString usb_mmc_scsi mmc.cid");
  EXPECT_EQ(Bus().calls.at(4), "GetPropertyInteger scsi_host mmc_host.host");
  EXPECT_EQ(Bus().calls.at(5), "GetPropertyString scsi_host linux.sysfs_path");
}

TEST_F(HalVolumeQuery, OfACardNeedsItsIdentityAndItsHost) {
  const struct {
    const char* device;
    const char* missing;
    const char* record;
  } cases[] = {
      {"/volume", "", kCard},
      {"/mmc_card", "mmc.cid", nullptr},
      {"/mmc_card", "info.parent", nullptr},
      {"/host", "mmc_host.host", nullptr},
  };
  for (const auto& [device, missing, record] : cases) {
    tDevices devices = Card();
    devices[device].erase(missing);
    const std::optional<HalVolumeInfo> info = Described(devices);
    EXPECT_EQ(info ? Shown(*info) : "none", record != nullptr ? record : "none") << missing;
    EXPECT_EQ(testing::Value(Bus().calls, Contains("GetPropertyString volume volume.fstype")),
              record != nullptr)
        << missing;
  }
  ASSERT_TRUE(Described(Card()));
  EXPECT_THAT(
      Bus().calls,
      ElementsAre("GetPropertyString volume info.parent", "GetPropertyString storage info.parent",
                  "GetPropertyString mmc_card info.parent", "GetPropertyString mmc_card mmc.cid",
                  "GetPropertyInteger host mmc_host.host", "GetPropertyString volume volume.fstype",
                  "GetPropertyString volume block.device",
                  "GetPropertyBoolean volume volume.is_mounted"));
}

TEST_F(HalVolumeQuery, ACardsHostIsSearchedBesideItsControllerAndTheFirstOneCounts) {
  const tDevices hosts{
      {"/host", {}},
      {"/other", {{"info.parent", "/elsewhere"}, {"mmc_host.host", 7}}},
      {"/own", {{"info.parent", "/host"}, {"mmc_host.host", 2}}},
      {"/further", {{"info.parent", "/host"}, {"mmc_host.host", 3}}},
      {"/numberless", {{"info.parent", "/host"}}},
      {"/parentless", {{"mmc_host.host", 9}}},
  };
  const struct {
    tTexts found;
    std::optional<int32_t> number;
    tTexts lines;  // behind "mmc_host detection"
  } cases[] = {
      {{"/other", "/own", "/further"}, 2, {"/other", "/own", "Matched host"}},
      {{"/further", "/own"}, 3, {"/further", "Matched host"}},
      {{"/parentless", "/own"}, 2, {"/parentless", "/own", "Matched host"}},
      {{"/numberless", "/own"}, std::nullopt, {"/numberless", "Matched host"}},
      {{"/other"}, std::nullopt, {"/other"}},
      {{}, std::nullopt, {}},
  };
  for (const auto& [found, number, lines] : cases) {
    const tCapturedLog log;
    tDevices devices = Card();
    for (const auto& [udi, properties] : hosts) devices[udi] = properties;
    Bus().found["mmc_host"] = found;
    const std::optional<HalVolumeInfo> info = Described(devices);
    ASSERT_EQ(info.has_value(), number.has_value()) << testing::PrintToString(found);
    if (info) {
      EXPECT_EQ(info->MMCHost, *number);
    }
    std::vector<tLogLine> expected;
    for (const std::string& udi : found) expected.push_back({kLogDebug, udi});
    expected.push_back({kLogDebug, "mmc_host detection"});
    for (const std::string& line : lines) expected.push_back({kLogDebug, line});
    std::vector<tLogLine> reported;
    for (const tLogLine& line : log.Lines()) {
      if (line.level != kLogError) reported.push_back(line);
    }
    EXPECT_EQ(reported, expected) << testing::PrintToString(found);
  }
}

TEST_F(HalVolumeQuery, OfACardOnAnUnknownDiskHasItRebuiltAndGoesOn) {
  const std::string unknown = "/org/freedesktop/Hal/devices/computer_storage_unknown_disk";
  const struct {
    std::string disk;
    std::optional<std::string> backing;
    bool rebuilt;
  } cases[] = {
      {unknown, "/dev/mmc\nblk0", true},
      {unknown, std::nullopt, true},
      {unknown + "_0", "/dev/mmcblk0", false},
      {"/org/freedesktop/Hal/devices/computer_storage_unknown", "/dev/mmcblk0", false},
      {"/x" + unknown, "/dev/mmcblk0", false},
  };
  for (const auto& [disk, backing, rebuilt] : cases) {
    const tCapturedLog log;
    tDevices devices = Card();
    devices["/volume"]["info.parent"] = disk;
    devices[disk] = devices["/storage"];
    if (backing) devices[disk]["block.device"] = *backing;
    const std::optional<HalVolumeInfo> info = Described(devices);
    ASSERT_TRUE(info) << disk;
    EXPECT_EQ(info->StorageDeviceId, disk);
    const std::string name = disk.substr(disk.rfind('/') + 1);
    tTexts calls{"GetPropertyString volume info.parent"};
    if (rebuilt) {
      calls.push_back("GetPropertyString " + name + " block.device");
      calls.push_back("rebuild " + backing.value_or(""));
    }
    calls.push_back("GetPropertyString " + name + " info.parent");
    EXPECT_EQ(tTexts(Bus().calls.begin(), Bus().calls.begin() + static_cast<long>(calls.size())),
              calls);
    EXPECT_EQ(log.Holds(kLogDebug, "GetVolumeInfo() Found computer_storage_unknown_disk."),
              rebuilt);
    EXPECT_EQ(log.Holds(kLogDebug, backing ? "GetVolumeInfo() Backing device is /dev/mmc?blk0"
                                           : "GetVolumeInfo() Backing device is "),
              rebuilt);
  }
}

}  // namespace
