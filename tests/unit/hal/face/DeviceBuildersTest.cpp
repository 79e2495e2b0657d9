#include "hal/face/DeviceBuilders.h"

#include <gtest/gtest.h>

#include <string>

#include "hal/face/HalNames.h"

namespace {

TEST(TameForName, BreaksTheWordsThatTellTheBus) {
  const struct {
    std::string text;
    std::string tame;
  } kTable[] = {
      {"", ""},
      {"AA99", "AA99"},
      {"mmc7", "m_mc7"},
      {"usb", "u_sb"},
      {"xusbx", "xu_sbx"},
      {"scsi", "s_csi"},
      {"mmmc", "mm_mc"},
      {"usbusb", "u_sbu_sb"},
      {"usbscsimmc", "u_sbs_csim_mc"},
      {"USB MMC", "USB MMC"},  // clients look for small letters
      {"us", "us"},
      {"a/b", "a_b"},
      {"/org/freedesktop/Hal/devices/volume", "_org_freedesktop_Hal_devices_volume"},
  };
  for (const auto& row : kTable) EXPECT_EQ(hal::TameForName(row.text), row.tame) << row.text;
}

class DeviceBuilders : public testing::Test {
 protected:
  hal::DeviceTree tree_;
  hal::DeviceChain chain_{tree_};
};

std::string NameOf(const hal::Place& place) {
  return place.udi.substr(std::string(hal::kDevicePrefix).size());
}

TEST_F(DeviceBuilders, AStickHasTheNamesThatClientsKnow) {
  const auto usb = hal::AppendUsbDevice(chain_, {"/sys/usb", 0x90c, 0x1000, "AA99"});
  const auto interface = hal::AppendUsbInterface(chain_, usb, 0, "/sys/usb/if");
  const auto host = hal::AppendScsiHost(chain_, interface, "/sys/usb/if/host2");
  const auto scsi = hal::AppendScsiDevice(chain_, host, {2, 0, 0, 1}, "/sys/usb/if/host2/dev");
  EXPECT_EQ(NameOf(usb), "usb_device_90c_1000_AA99");
  EXPECT_EQ(NameOf(interface), "usb_device_90c_1000_AA99_if0");
  EXPECT_EQ(NameOf(host), "usb_device_90c_1000_AA99_if0_scsi_host");
  EXPECT_EQ(NameOf(scsi), "usb_device_90c_1000_AA99_if0_scsi_host_scsi_device_lun1");
  EXPECT_EQ(chain_.Find(scsi.udi)->Text("info.parent"), host.udi);
  EXPECT_EQ(chain_.Find(scsi.udi)->Text("linux.sysfs_path"), "/sys/usb/if/host2/dev");
}

TEST_F(DeviceBuilders, ACardHasTheNamesThatClientsKnow) {
  const auto controller = hal::AppendController(chain_, "platform", "sdhci_0", "/sys/sdhci");
  const auto host = hal::AppendSdHost(chain_, controller, 0, "/sys/sdhci/mmc0");
  const std::string cid = "1b534d303030303010206bb243009a33";
  const auto card = hal::AppendCard(chain_, host, {"/sys/sdhci/mmc0/mmc0:e624", 58916, cid});
  const auto disk = hal::AppendDisk(
      chain_, card, {"/sys/b", "mmc", "sd_mmc", hal::CardSerial(cid), {"/dev/mmcblk0", 179, 0}});
  EXPECT_EQ(NameOf(card), "platform_sdhci_0_mmc_host_mmc_card_rca58916");
  EXPECT_EQ(NameOf(disk), "storage_serial_0x206bb243");
}

TEST_F(DeviceBuilders, TextsOfTheHardwareCannotPoseAsABus) {
  EXPECT_EQ(NameOf(hal::AppendUsbDevice(chain_, {"/sys/a", 1, 2, "mmc7"})), "usb_device_1_2_m_mc7");
  EXPECT_EQ(NameOf(hal::AppendController(chain_, "platform", "fe34.usbhost", "/sys/b")),
            "platform_fe34_u_sbhost");
  hal::VolumeFacts facts;
  facts.label = "scsi/mmc";
  EXPECT_EQ(NameOf(hal::AppendVolume(chain_, {hal::kRootDevice, ""}, facts)),
            "volume_label_s_csi_m_mc");
}

TEST_F(DeviceBuilders, WithoutASerialNumberThatIsSaid) {
  EXPECT_EQ(NameOf(hal::AppendUsbDevice(chain_, {"/sys/a", 1, 2, ""})), "usb_device_1_2_noserial");
}

TEST_F(DeviceBuilders, AVolumeIsNamedByWhatItHas) {
  const struct {
    const char* uuid;
    const char* label;
    int partition;
    const char* name;
  } kTable[] = {
      {"0000-060C", "MAPS", 1, "volume_uuid_0000_060C"},
      {"", "MY MAPS", 1, "volume_label_MY_MAPS"},
      {"", "", 2, "volume_part2_size_512"},
      {"", "", 0, "volume_size_512"},
      {"0000-060C", "", 1, "volume_uuid_0000_060C_0"},  // the same UUID once more
      {"\xC3\x28/\n", "", 1, "volume_uuid_____"},
  };
  for (const auto& row : kTable) {
    hal::VolumeFacts facts;
    facts.uuid = row.uuid;
    facts.label = row.label;
    facts.partition = row.partition;
    facts.sizeBytes = 512;
    EXPECT_EQ(NameOf(hal::AppendVolume(chain_, {hal::kRootDevice, ""}, facts)), row.name);
  }
}

TEST_F(DeviceBuilders, PathsAreGivenBackWhenAChainIsNotTaken) {
  {
    hal::DeviceChain other(tree_);
    hal::AppendUsbDevice(other, {"/sys/a", 1, 2, "A"});
  }
  EXPECT_EQ(NameOf(hal::AppendUsbDevice(chain_, {"/sys/a", 1, 2, "A"})), "usb_device_1_2_A");
}

}  // namespace
