// What the hardware service reports, and which way of tVoldrake's each report starts.

#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/HalNames.h"
#include "storage/tHalManager.h"
#include "volumes/tVoldrake.h"

void tVoldrake::HalManagerDeviceAddedCb(const char* udi) {
  _DeviceAdded(udi);
}

void tVoldrake::HalManagerDeviceRemovedCb(const char* udi) {
  _DeviceRemoved(udi);
}

void tVoldrake::HalManagerPropertyChangedCb(const char* udi, const char* key) {
  const std::string property = key;
  bool ok = false;
  if (property == kHalVolumeIsMounted) {
    const bool mounted = m_pHalManager->propertyBool(udi, key, ok);
    if (!ok) return;
    if (mounted) {
      _DeviceMounted(udi);
    } else {
      _DeviceRemoved(udi);
    }
  } else if (property == kHalVolumeIsMountedReadOnly) {
    const bool readOnly = m_pHalManager->propertyBool(udi, key, ok);
    Log(std::string("HalManagerPropertyChangedCb MountedRo ") + FlagText(readOnly) + " " +
            FlagText(ok),
        kLogDebug);
    if (!ok) return;
    if (readOnly) {
      _DeviceReMountedRo(udi);
    } else {
      _DeviceReMountedRw(udi);
    }
  }
}
