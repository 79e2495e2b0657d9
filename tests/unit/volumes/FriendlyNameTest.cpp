#include "volumes/FriendlyName.h"

#include <gtest/gtest.h>

#include <limits>

#include "storage/HalVolumeInfo.h"

namespace {

struct tDevice {
  const char* bus;
  int32_t vendor = 0;
  int32_t product = 0;
  int32_t lun = 0;
  int32_t mmcHost = 0;
};

HalVolumeInfo InfoOf(const tDevice& device) {
  HalVolumeInfo info;
  info.BusType = device.bus;
  info.VendorId = device.vendor;
  info.ProductId = device.product;
  info.SCSILun = device.lun;
  info.MMCHost = device.mmcHost;
  return info;
}

TEST(FriendlyName, FollowsBusMatchAndReader) {
  UsbMapMatch chartPort;
  chartPort.name = "Chart Port";
  const UsbMapMatch unnamed;
  const struct {
    tDevice device;
    std::optional<UsbMapMatch> match;
    const char* name;
  } cases[] = {
      {{.bus = "mmc", .mmcHost = 1}, std::nullopt, "Memory Card - 1"},
      {{.bus = "mmc", .mmcHost = 0}, std::nullopt, "Memory Card - 0"},
      {{.bus = "mmc", .mmcHost = 12}, chartPort, "Memory Card - 12"},
      {{.bus = "mmc", .mmcHost = -1}, std::nullopt, "Memory Card - -1"},
      {{.bus = "usb"}, std::nullopt, "USB Mass Storage"},
      {{.bus = "usb", .vendor = 0x0424, .product = 0x4040}, std::nullopt, "USB Mass Storage"},
      {{.bus = "usb", .vendor = 0x0781, .product = 0x5567}, chartPort, " - Chart Port"},
      {{.bus = "usb"}, unnamed, " - "},
      {{.bus = "usb", .vendor = 0x0424, .product = 0x4040, .lun = 0}, chartPort, "KR20 - 1"},
      {{.bus = "usb", .vendor = 0x0424, .product = 0x4040, .lun = 2}, chartPort, "KR20 - 3"},
      {{.bus = "usb", .vendor = 0x0424, .product = 0x2240, .lun = 2}, chartPort, " - Chart Port"},
      {{.bus = "usb", .vendor = 0x4040, .product = 0x0424}, chartPort, " - Chart Port"},
      {{.bus = "usbmmc", .mmcHost = 3}, std::nullopt, "Memory Card - 3USB Mass Storage"},
      {{.bus = "scsi"}, std::nullopt, ""},
      {{.bus = "scsi"}, chartPort, ""},
      {{.bus = ""}, chartPort, ""},
      {{.bus = "USB"}, std::nullopt, ""},
      {{.bus = "MMC"}, std::nullopt, ""},
  };
  for (const auto& [device, match, name] : cases) {
    EXPECT_EQ(FriendlyName(InfoOf(device), match), name) << device.bus;
  }
}

TEST(FriendlyName, SlotNumbersDoNotOverflow) {
  const UsbMapMatch match;
  EXPECT_EQ(FriendlyName(InfoOf({.bus = "usb",
                                 .vendor = 0x0424,
                                 .product = 0x4040,
                                 .lun = std::numeric_limits<int32_t>::max()}),
                         match),
            "KR20 - 2147483648");
}

}  // namespace
