// How tHalManager gathers the record of a volume: a fixed sequence of property queries up the chain
// of devices, from the volume over its disk and controller to the host.

#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/HalNames.h"
#include "storage/HalVolumeInfo.h"
#include "storage/UsbHub.h"
#include "storage/tHalManager.h"

namespace {

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

bool tHalManager::GetVolumeInfo(HalVolumeInfo& info) {
  bool ok = false;
  const char* volume = info.VolumeId.c_str();

  info.StorageDeviceId = propertyString(volume, kHalParent, ok);
  if (!ok) return false;
  if (info.StorageDeviceId == kHalUnknownDisk) {
    Log("GetVolumeInfo() Found computer_storage_unknown_disk.", kLogDebug);
    // Without an answer the device is as unknown as any other that is none of the unit's slots.
    const std::string backing = propertyString(kHalUnknownDisk, kHalBlockDevice, ok);
    Log("GetVolumeInfo() Backing device is " + Printable(backing), kLogDebug);
    _RebuildCardReaderTree(backing);
  }
  info.ControllerId = propertyString(info.StorageDeviceId.c_str(), kHalParent, ok);
  if (!ok) return false;
  info.HostID = propertyString(info.ControllerId.c_str(), kHalParent, ok);
  if (!ok) return false;

  // A card without identity is no usable volume; a USB device without port path, ids or SCSI
  // address is.
  if (Contains(info.ControllerId, "mmc")) {
    info.BusType = "mmc";
    ok = _GetMmcHost(info);
  }
  if (Contains(info.ControllerId, "usb")) {
    info.BusType = "usb";
    _GetUsbHub(info);
  }
  if (Contains(info.ControllerId, "scsi")) _GetScsiAddress(info);
  if (!ok) return false;

  info.FileSystemType = propertyString(volume, kHalVolumeFileSystemType, ok);
  if (!ok) return false;
  info.BlockDevice = propertyString(volume, kHalBlockDevice, ok);
  if (!ok) return false;
  info.IsMounted = propertyBool(volume, kHalVolumeIsMounted, ok);
  if (!ok) return false;
  if (!info.IsMounted) return true;
  info.MountPoint = propertyString(volume, kHalVolumeMountPoint, ok);
  if (!ok) return false;
  info.ReadOnly = propertyBool(volume, kHalVolumeIsMountedReadOnly, ok);
  return ok;
}

bool tHalManager::_GetMmcHost(HalVolumeInfo& info) {
  bool ok = false;
  info.Cid = propertyString(info.ControllerId.c_str(), kHalMmcCid, ok);
  if (!ok) return false;
  info.MMCHost = propertyInt(info.HostID.c_str(), kHalMmcHost, ok);
  if (ok) return true;

  const std::vector<std::string> hosts = findDeviceByCapability(kHalMmcHostCapability);
  Log("mmc_host detection", kLogDebug);
  for (const std::string& host : hosts) {
    Log(Printable(host), kLogDebug);
    bool hasParent = false;
    const std::string parent = propertyString(host.c_str(), kHalParent, hasParent);
    if (!hasParent || parent != info.HostID) continue;
    Log("Matched host", kLogDebug);
    info.MMCHost = propertyInt(host.c_str(), kHalMmcHost, ok);
    break;
  }
  return ok;
}

bool tHalManager::_GetUsbHub(HalVolumeInfo& info) {
  bool ok = false;
  const char* host = info.HostID.c_str();
  const std::string path = propertyString(host, kHalSysfsPath, ok);
  if (!ok) return false;
  // A path of another form only leaves the hub unknown.
  if (std::string hub; UsbHubFromSysfsPath(path, hub)) info.USBHub = hub;
  info.VendorId = propertyIntInherited(host, kHalUsbVendorId, ok);
  if (ok) info.ProductId = propertyIntInherited(host, kHalUsbProductId, ok);
  return ok;
}

bool tHalManager::_GetScsiAddress(HalVolumeInfo& info) {
  bool ok = false;
  const char* controller = info.ControllerId.c_str();
  const std::string subsystem = propertyString(controller, kHalSubsystem, ok);
  if (!ok || !Contains(subsystem, "scsi")) return ok;
  info.SCSIHost = propertyIntInherited(controller, kHalScsiHost, ok);
  if (ok) info.SCSIBus = propertyIntInherited(controller, kHalScsiBus, ok);
  if (ok) info.SCSITarget = propertyIntInherited(controller, kHalScsiTarget, ok);
  if (ok) info.SCSILun = propertyIntInherited(controller, kHalScsiLun, ok);
  return ok;
}
