#include "volumes/Exclusion.h"

#include <gtest/gtest.h>

#include "storage/HalVolumeInfo.h"

namespace {

TEST(Exclusion, LeavesAloneWhatIsIgnoredOrOnAnotherBus) {
  const tUsbMap ignored{{"/dev/sdb1", {}}};
  const struct {
    const char* device;
    const char* bus;
    tExclusion exclusion;
  } cases[] = {
      {"/dev/sda1", "usb", tExclusion::kNone},
      {"/dev/mmcblk0p1", "mmc", tExclusion::kNone},
      {"/dev/sda1", "usbmmc", tExclusion::kNone},
      {"/dev/sdb1", "usb", tExclusion::kIgnoredDevice},
      {"/dev/sdb1", "scsi", tExclusion::kIgnoredDevice},
      {"/dev/sdb1", "", tExclusion::kIgnoredDevice},
      {"/dev/sdb", "usb", tExclusion::kNone},
      {"/dev/sdb10", "usb", tExclusion::kNone},
      {"/dev/SDB1", "usb", tExclusion::kNone},
      {"", "usb", tExclusion::kNone},
      {"/dev/sda1", "scsi", tExclusion::kOtherBus},
      {"/dev/sda1", "USB", tExclusion::kOtherBus},
      {"/dev/sda1", "MMC", tExclusion::kOtherBus},
      {"/dev/sda1", "", tExclusion::kOtherBus},
  };
  for (const auto& [device, bus, exclusion] : cases) {
    HalVolumeInfo info;
    info.BlockDevice = device;
    info.BusType = bus;
    EXPECT_EQ(ExclusionOf(info, ignored), exclusion) << device << " " << bus;
  }
}

TEST(Exclusion, ADeviceIsIgnoredByItsExactPathOnly) {
  HalVolumeInfo info;
  info.BlockDevice = "/dev/sda1";
  info.BusType = "usb";
  for (const char* device : {"", "/dev/sda", "sda1", "/dev/SDA1", "/dev/sda1 ", " /dev/sda1",
                             "/dev/sda1\r", "/dev/sda11", "/dev/sda*", "//dev/sda1"}) {
    EXPECT_EQ(ExclusionOf(info, {{device, {}}}), tExclusion::kNone) << device;
  }
  const tUsbMap several{{"/dev/sd", {}}, {"/dev/sda1", {}}, {"/dev/sdb1", {}}};
  EXPECT_EQ(ExclusionOf(info, several), tExclusion::kIgnoredDevice);
}

}  // namespace
