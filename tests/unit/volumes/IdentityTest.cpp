#include "volumes/Identity.h"

#include <gmock/gmock.h>

#include "storage/HalVolumeInfo.h"

using testing::ElementsAre;

namespace {

tUsbMap MapOf(const std::vector<std::string>& usbids) {
  tUsbMap map;
  for (const std::string& usbid : usbids) map[usbid].usbid = usbid;
  return map;
}

TEST(UsbMap, HasADeviceByItsPortAndAReaderUnderItsFirstEntry) {
  constexpr int32_t kSmsc = 0x0424;
  const struct {
    const char* bus;
    const char* hub;
    int32_t vendor;
    int32_t product;
    std::vector<std::string> usbids;
    const char* found;  // null: nothing
    bool byReader;
  } cases[] = {
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_2", "1-1_3"}, "1-1_3", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1", "1-1_3"}, "1-1", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_3--1_0"}, "1-1_3--1_0", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1_3"}, "1_3", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"--"}, "--", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1_0", "1-1"}, "1-1", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"", "1-1_3"}, "", false},
      {"usb", "", 0x0781, 0x5567, {""}, "", false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_3--1_0 "}, nullptr, false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_3\r"}, nullptr, false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1.3"}, nullptr, false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_2"}, nullptr, false},
      {"usb", "1-1_3--1_0", 0x0781, 0x5567, {}, nullptr, false},
      {"usb", "", 0x0781, 0x5567, {"1-1_3"}, nullptr, false},
      {"mmc", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_3"}, nullptr, false},
      {"usbmmc", "1-1_3--1_0", 0x0781, 0x5567, {"1-1_3"}, "1-1_3", false},
      {"", "1-1_3--1_0", kSmsc, 0x4040, {"1-1_3"}, nullptr, false},
      {"usb", "1-1_9--1_0", kSmsc, 0x4040, {"1-1_2", "1-1_3"}, "1-1_2", true},
      {"usb", "1-1_9--1_0", kSmsc, 0x2240, {"1-1_2", "1-1_3"}, "1-1_2", true},
      {"usb", "1-1_3--1_0", kSmsc, 0x2240, {"1-1_2", "1-1_3"}, "1-1_2", true},
      {"usb", "1-1_2--1_0", kSmsc, 0x2240, {"1-1_2", "1-1_3"}, "1-1_2", false},
      {"usb", "1-1_9--1_0", kSmsc, 0x4040, {}, nullptr, false},
      {"usb", "1-1_9--1_0", kSmsc, 0x4041, {"1-1_2"}, nullptr, false},
      {"usb", "1-1_9--1_0", kSmsc + 1, 0x4040, {"1-1_2"}, nullptr, false},
      {"usb", "1-1_9--1_0", kSmsc + 1, 0x2240, {"1-1_2"}, nullptr, false},
  };
  for (const auto& [bus, hub, vendor, product, usbids, found, byReader] : cases) {
    HalVolumeInfo info;
    info.BusType = bus;
    info.USBHub = hub;
    info.VendorId = vendor;
    info.ProductId = product;
    const std::optional<tUsbMapPlace> place = FindInUsbMap(info, MapOf(usbids));
    ASSERT_EQ(place.has_value(), found != nullptr) << bus << " " << hub << " " << product;
    if (!place) continue;
    EXPECT_EQ(place->match.usbid, found);
    EXPECT_EQ(place->byReader, byReader) << hub << " " << product;
  }
}

/// A record whose every field has a value of its own.
HalVolumeInfo FullRecord(const char* bus) {
  HalVolumeInfo info;
  info.VolumeId = "/volume";
  info.StorageDeviceId = "/storage";
  info.ControllerId = "/controller";
  info.HostID = "/host";
  info.BusType = bus;
  info.FileSystemType = "vfat";
  info.IsMounted = true;
  info.MountPoint = "/media/sda1";
  info.BlockDevice = "/dev/sda1";
  info.LinkPath = "/media/link";
  info.USBHub = "1-1_3--1_0";
  info.VendorId = 1;
  info.ProductId = 2;
  info.MMCHost = 3;
  info.Cid = "0353";
  info.SCSIHost = 4;
  info.SCSIBus = 5;
  info.SCSITarget = 6;
  info.SCSILun = 7;
  return info;
}

TEST(VolumeDescription, ShowsTheFieldsThatMeanSomethingOnItsBus) {
  const std::vector<std::string> hub{"USBHub = 1-1_3--1_0"};
  const std::vector<std::string> host{"MMCHost = 3"};
  const std::vector<std::string> address{"SCSIHost = 4", "SCSIBus = 5", "SCSITarget = 6",
                                         "SCSILun = 7"};
  const struct {
    const char* bus;
    std::vector<std::string> port;
    std::vector<std::string> scsi;
  } cases[] = {{"usb", hub, {}}, {"mmc", host, {}}, {"scsi", {}, address}, {"", {}, {}}};
  for (const auto& [bus, port, scsi] : cases) {
    std::vector<std::string> lines{"VolumeId = /volume", "StorageDeviceId =  /storage",
                                   "ControllerId = /controller", "HostID = /host",
                                   std::string("BusType = ") + bus};
    lines.insert(lines.end(), port.begin(), port.end());
    for (const char* line :
         {"Cid = 0353", "FileSystemType = vfat", "IsMounted = 1", "MountPoint = /media/sda1",
          "ReadOnly = 0", "BlockDevice = /dev/sda1"}) {
      lines.push_back(line);
    }
    lines.insert(lines.end(), scsi.begin(), scsi.end());
    EXPECT_EQ(DescribeVolume(FullRecord(bus)), lines);
  }
}

TEST(VolumeDescription, HasNoControlCharacterOfTheService) {
  HalVolumeInfo info = FullRecord("usb");
  for (std::string* text :
       {&info.VolumeId, &info.StorageDeviceId, &info.ControllerId, &info.HostID, &info.USBHub,
        &info.Cid, &info.FileSystemType, &info.MountPoint, &info.BlockDevice}) {
    *text += "\n";
  }
  for (const std::string& line : DescribeVolume(info)) {
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
}

}  // namespace
