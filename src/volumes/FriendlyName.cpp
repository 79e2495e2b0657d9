#include "volumes/FriendlyName.h"

#include "storage/CardReader.h"
#include "storage/HalVolumeInfo.h"

std::string FriendlyName(const HalVolumeInfo& info, const std::optional<UsbMapMatch>& match) {
  std::string name;
  if (info.BusType.find("mmc") != std::string::npos) {
    name += "Memory Card - " + std::to_string(info.MMCHost);
  }
  if (info.BusType.find("usb") != std::string::npos) {
    if (!match) {
      name += "USB Mass Storage";
    } else if (IsSmscMediaReader(info.VendorId, info.ProductId)) {
      name += "KR20 - " + std::to_string(int64_t{info.SCSILun} + 1);
    } else {
      name += " - " + match->name;
    }
  }
  return name;
}
