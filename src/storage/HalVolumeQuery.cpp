// How tHalManager gathers the record of a volume: a fixed sequence of property queries up the chain
// of devices, from the volume over its disk and controller to the host.

#include <utility>

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

template <typename tValue>
bool tHalManager::_ReadProperty(const std::string& udi, const char* key, tValue& value) {
  std::optional<tValue> property = _QueryProperty<tValue>(udi.c_str(), key);
  const bool read = property.has_value();
  value = read ? std::move(*property) : tValue{};
  return read;
}

bool tHalManager::_ReadInherited(const std::string& udi, const char* key, int32_t& value) {
  bool ok = false;
  value = propertyIntInherited(udi.c_str(), key, ok);
  return ok;
}

bool tHalManager::GetVolumeInfo(HalVolumeInfo& info) {
  return _GetDevicesAbove(info) && _GetBus(info) && _GetMount(info);
}

bool tHalManager::_GetDevicesAbove(HalVolumeInfo& info) {
  if (!_ReadProperty(info.VolumeId, kHalParent, info.StorageDeviceId)) return false;
  if (info.StorageDeviceId == kHalUnknownDisk) {
    Log("GetVolumeInfo() Found computer_storage_unknown_disk.", kLogDebug);
    // Without an answer the device is as unknown as any other that is none of the unit's slots.
    bool ok = false;
    const std::string backing = propertyString(kHalUnknownDisk, kHalBlockDevice, ok);
    Log("GetVolumeInfo() Backing device is " + Printable(backing), kLogDebug);
    _RebuildCardReaderTree(backing);
  }
  return _ReadProperty(info.StorageDeviceId, kHalParent, info.ControllerId) &&
         _ReadProperty(info.ControllerId, kHalParent, info.HostID);
}

bool tHalManager::_GetBus(HalVolumeInfo& info) {
  // A card without identity is no usable volume; a USB device without port path, ids or SCSI
  // address is.
  bool usable = true;
  if (Contains(info.ControllerId, "mmc")) {
    info.BusType = "mmc";
    usable = _GetMmcHost(info);
  }
  if (Contains(info.ControllerId, "usb")) {
    info.BusType = "usb";
    _GetUsbHub(info);
  }
  if (Contains(info.ControllerId, "scsi")) _GetScsiAddress(info);
  return usable;
}

bool tHalManager::_GetMount(HalVolumeInfo& info) {
  if (!_ReadProperty(info.VolumeId, kHalVolumeFileSystemType, info.FileSystemType) ||
      !_ReadProperty(info.VolumeId, kHalBlockDevice, info.BlockDevice) ||
      !_ReadProperty(info.VolumeId, kHalVolumeIsMounted, info.IsMounted)) {
    return false;
  }
  if (!info.IsMounted) return true;
  return _ReadProperty(info.VolumeId, kHalVolumeMountPoint, info.MountPoint) &&
         _ReadProperty(info.VolumeId, kHalVolumeIsMountedReadOnly, info.ReadOnly);
}

bool tHalManager::_GetMmcHost(HalVolumeInfo& info) {
  if (!_ReadProperty(info.ControllerId, kHalMmcCid, info.Cid)) return false;
  if (_ReadProperty(info.HostID, kHalMmcHost, info.MMCHost)) return true;

  const std::vector<std::string> hosts = findDeviceByCapability(kHalMmcHostCapability);
  Log("mmc_host detection", kLogDebug);
  for (const std::string& host : hosts) {
    Log(Printable(host), kLogDebug);
    std::string parent;
    if (!_ReadProperty(host, kHalParent, parent) || parent != info.HostID) continue;
    Log("Matched host", kLogDebug);
    return _ReadProperty(host, kHalMmcHost, info.MMCHost);
  }
  return false;
}

bool tHalManager::_GetUsbHub(HalVolumeInfo& info) {
  std::string path;
  if (!_ReadProperty(info.HostID, kHalSysfsPath, path)) return false;
  // A path of another form only leaves the hub unknown.
  if (std::string hub; UsbHubFromSysfsPath(path, hub)) info.USBHub = hub;
  return _ReadInherited(info.HostID, kHalUsbVendorId, info.VendorId) &&
         _ReadInherited(info.HostID, kHalUsbProductId, info.ProductId);
}

bool tHalManager::_GetScsiAddress(HalVolumeInfo& info) {
  std::string subsystem;
  if (!_ReadProperty(info.ControllerId, kHalSubsystem, subsystem)) return false;
  if (!Contains(subsystem, "scsi")) return true;
  return _ReadInherited(info.ControllerId, kHalScsiHost, info.SCSIHost) &&
         _ReadInherited(info.ControllerId, kHalScsiBus, info.SCSIBus) &&
         _ReadInherited(info.ControllerId, kHalScsiTarget, info.SCSITarget) &&
         _ReadInherited(info.ControllerId, kHalScsiLun, info.SCSILun);
}
