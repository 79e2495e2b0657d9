#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sharing/ExportTable.h"
#include "sharing/IServiceBrowserCallback.h"
#include "storage/HalVolumeInfo.h"
#include "storage/IHalManagerCallback.h"
#include "volumes/Identity.h"
#include "volumes/IdentityText.h"

class CMountPointNameManager;
class CServiceBrowser;
class CServicePublisher;
class ConfigManager;
class tHalManager;
class tMessageClient;
class tRemoteVolumes;

/// The heart of the daemon: knows which local volumes are in use and carries each through its life.
/// The hardware service reports a device; the volume is described, tested against the exclusions
/// and mounted; once the service reports it mounted it is linked under "/media", reported to the
/// display application and entered in the list; when it goes, all of that is undone.
///
/// An entry stands in the list exactly while its volume is mounted and reported. Volume ids are
/// unique. Between the request for a mount and the report of it nothing is remembered: a mount that
/// fails is not tried again until the service reports the device anew.
///
/// Threads: the main thread's alone, but for the three IServiceBrowserCallback operations.
class tVoldrake : public IHalManagerCallback, public IServiceBrowserCallback {
 public:
  /// Starts the workers and registers the volumes that are already there. Blocks for as long as the
  /// hardware service takes to describe and mount them.
  /// Requires: both pointers not null; they are not owned and outlive this object.
  tVoldrake(tHalManager* pHalManager, ConfigManager* pConfigManager, int32_t clientPort,
            std::string internalSharePath, std::string peerMac, std::string contentIdFile,
            std::string serialNumberFile, std::string platformFamily, int mmcHostIndex);

  /// Stops the workers and waits for them. The shares that are still there are unmounted and
  /// reported removed, for which the application gets up to two seconds.
  ~tVoldrake() override;

  /// Stops sharing: withdraws the local volumes, waits for the NFS clients of other units to let go
  /// (three seconds and more) and stops listening to other units.
  void Stop();

  // HalEvents.cpp
  void HalManagerDeviceAddedCb(const char* udi) override;
  void HalManagerDeviceRemovedCb(const char* udi) override;
  void HalManagerPropertyChangedCb(const char* udi, const char* key) override;

  // What is heard of other units goes to the remote volumes, on the thread that has heard it.
  void OnPeerFound(const std::string& address) override;
  bool OnServiceAdded(const NFS_DATA_T& share) override;
  void OnServiceRemoved(const NFS_DATA_T& share) override;

  /// Carries out what a Unix signal asks for: SIGUSR1 reports every volume again, SIGUSR2 removes
  /// every other volume of the list, the first one first, and scans again, as if a card had been
  /// taken out and put back. False for any other signal.
  virtual bool SignalAction(int signalNumber);

 private:
  enum class tMountResult {
    kRegistered,  ///< it is mounted already
    kAgreed,      ///< the hardware service mounts it, and will report that
    kRefused,
    kNameless,  ///< nothing was done: no mount-point name can be had for it
  };

  // Arrival.cpp: from a device of the hardware service to an entry in the list.
  void _DeviceAdded(const std::string& udi);
  /// Registers a volume that is mounted. Has any other mounted under the `name` that it gets, after
  /// clearing away what an earlier run left there; `leftoverWarning` stands in the log before the
  /// path of a leftover that cannot be deleted.
  tMountResult _MountOrRegister(const HalVolumeInfo& info, const char* leftoverWarning,
                                std::string& name);
  void _DeviceMounted(const std::string& udi);
  void _AddMountPoint(HalVolumeInfo& info, const std::optional<UsbMapMatch>& match);
  void _PublishArrival(const HalVolumeInfo& info, const std::string& friendlyName);
  void _RefreshContentId() { m_ContentId.Refresh(); }
  void _RefreshSerialNumber() { m_SerialNumber.Refresh(); }

  // Removal.cpp: how an entry leaves the list, and what remounts mean.
  void _DeviceRemoved(const std::string& udi);
  void _UnmountAll();
  void _DeviceReMountedRo(const std::string& udi);
  void _DeviceReMountedRw(const std::string& udi);

  // ManualScan.cpp: the volumes that are there without an event.
  void _ManualScan();
  void _ScanVolume(const std::string& udi);

  // Exclusion.cpp
  bool _IsInExclusionList(const HalVolumeInfo& info);

  // Identity.cpp
  /// Looks the volume up in the USB map. When it is in a supported card reader, asks that for the
  /// card's CID, for up to two seconds, and writes it to the record. Nullopt when there is no
  /// match.
  std::optional<UsbMapMatch> _FindUsbMapEntry(HalVolumeInfo& info);
  void _PrintHalVolumeInfo(const HalVolumeInfo& info);

  // Republish.cpp
  void Republish();

  // Constant after construction.
  tHalManager* const m_pHalManager;
  ConfigManager* const m_pConfigManager;
  const std::string m_InternalSharePath;
  const std::string m_PlatformFamily;  ///< for debugging: nothing depends on it
  const int m_MmcHostIndex;

  // Synchronised by themselves. The pointers are set by the constructor.
  tExportTable m_Exports;  ///< used by the publisher
  std::unique_ptr<tMessageClient> m_pMessageClient;
  std::unique_ptr<CServicePublisher> m_pServicePublisher;
  std::unique_ptr<tRemoteVolumes> m_pRemoteVolumes;
  std::unique_ptr<CServiceBrowser> m_pServiceBrowser;

  // The main thread's.
  std::unique_ptr<CMountPointNameManager> m_pMountPointNameManager;
  std::vector<HalVolumeInfo> m_Volumes;  ///< in the order in which they were added
  tIdentityText m_ContentId;
  tIdentityText m_SerialNumber;
};
