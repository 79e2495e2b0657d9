#include "volumes/Identity.h"

#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/CardReader.h"
#include "storage/HalVolumeInfo.h"
#include "volumes/tVoldrake.h"

namespace {

bool IsOn(const char* bus, const HalVolumeInfo& info) {
  return info.BusType.find(bus) != std::string::npos;
}

}  // namespace

std::optional<tUsbMapPlace> FindInUsbMap(const HalVolumeInfo& info, const tUsbMap& map) {
  if (!IsOn("usb", info)) return std::nullopt;
  const bool isReader = IsSmscCardReader(info.VendorId, info.ProductId);
  for (const auto& [usbid, entry] : map) {
    if (info.USBHub.find(usbid) != std::string::npos) return tUsbMapPlace{entry, false};
    if (isReader) return tUsbMapPlace{entry, true};
  }
  return std::nullopt;
}

std::vector<std::string> DescribeVolume(const HalVolumeInfo& info) {
  std::vector<std::string> lines;
  const auto add = [&lines](const char* label, const std::string& value) {
    lines.push_back(label + value);
  };
  add("VolumeId = ", Printable(info.VolumeId));
  add("StorageDeviceId =  ", Printable(info.StorageDeviceId));
  add("ControllerId = ", Printable(info.ControllerId));
  add("HostID = ", Printable(info.HostID));
  add("BusType = ", info.BusType);
  if (IsOn("usb", info)) add("USBHub = ", Printable(info.USBHub));
  if (IsOn("mmc", info)) add("MMCHost = ", std::to_string(info.MMCHost));
  add("Cid = ", Printable(info.Cid));
  add("FileSystemType = ", Printable(info.FileSystemType));
  add("IsMounted = ", FlagText(info.IsMounted));
  add("MountPoint = ", Printable(info.MountPoint));
  add("ReadOnly = ", FlagText(info.ReadOnly));
  add("BlockDevice = ", Printable(info.BlockDevice));
  if (IsOn("scsi", info)) {
    add("SCSIHost = ", std::to_string(info.SCSIHost));
    add("SCSIBus = ", std::to_string(info.SCSIBus));
    add("SCSITarget = ", std::to_string(info.SCSITarget));
    add("SCSILun = ", std::to_string(info.SCSILun));
  }
  return lines;
}

std::optional<UsbMapMatch> tVoldrake::_FindUsbMapEntry(HalVolumeInfo& info) {
  const std::optional<tUsbMapPlace> place = FindInUsbMap(info, m_pConfigManager->GetUsbMap());
  if (!place) return std::nullopt;
  if (place->byReader) {
    Log("_DeviceMounted: HalVolumeInfo.VendorId/ProductId matches SMSC support for id " +
            place->match.usbid,
        kLogInfo);
    ReadCardSerial(info.BlockDevice.c_str(), info.Cid);
  } else {
    Log("_DeviceMounted: HalVolumeInfo.USBHub " + Printable(info.USBHub) + " matches " +
            place->match.usbid,
        kLogInfo);
  }
  return place->match;
}

void tVoldrake::_PrintHalVolumeInfo(const HalVolumeInfo& info) {
  Log(std::string(75, '-'), kLogInfo);
  for (const std::string& line : DescribeVolume(info)) {
    Log("_PrintHalVolumeInfo: " + line, kLogInfo);
  }
}
