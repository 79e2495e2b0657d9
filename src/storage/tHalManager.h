#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "storage/DBusHandles.h"

class IHalManagerCallback;
struct HalVolumeInfo;

/// The daemon's only link to the hardware service on the system bus: delivers the service's device
/// signals to one receiver, reads device properties and asks for mounts.
///
/// Everything runs on the main thread. Calls block until the service answers or the bus library's
/// default time-out (25 s) has passed, also from within the dispatch of a signal. Failures are
/// logged and reported by the result; nothing is retried.
class tHalManager {
 public:
  /// The process's one instance, not connected at first.
  static tHalManager* getInstance();

  /// Connects to the system bus, attaches the connection to the default main context and subscribes
  /// to the service's signals. False when any step fails, also when the service is not there; what
  /// was obtained by then stays, so that queries work as far as they can.
  bool initHal();

  /// Undoes `initHal`. False, with the connection kept, when the bus does not take a match rule
  /// back, and when there is no connection.
  bool freeHal();

  /// Sets the receiver of events, in place of any before it. Not owned. Requires: not null.
  void InstallCallback(IHalManagerCallback* pCallback);

  // Property queries. `ok` says whether a reply of the right type came; without one the value is
  // 0, false or empty.
  int32_t propertyInt(const char* udi, const char* key, bool& ok);
  bool propertyBool(const char* udi, const char* key, bool& ok);
  std::string propertyString(const char* udi, const char* key, bool& ok);

  /// The integer on the device or on its nearest ancestor that has it. Each step up that fails to
  /// find it is logged as the service's error. Ends, not ok, at a device without a parent, and
  /// after 32 steps, which no real chain needs.
  int32_t propertyIntInherited(const char* udi, const char* key, bool& ok);

  /// The devices that have a capability ("volume", "mmc_host"), in the service's order; empty on
  /// failure.
  std::vector<std::string> findDeviceByCapability(const char* capability);

  /// Asks for a mount at "/media/" + `mountPoint` (a bare name). The whole text of `gVfatMountOpts`
  /// goes along as one option for file systems whose type begins with "vfat". True when the service
  /// agreed; its property change follows as an event.
  [[nodiscard]] bool mountVolume(const char* udi, const std::string& mountPoint,
                                 const std::string& fsType);

  /// As `mountVolume`, with the options "remount" and "rw" or "ro".
  [[nodiscard]] bool remountVolume(const char* udi, const std::string& mountPoint,
                                   const std::string& fsType, bool readWrite);

  /// True when the text holds the object path prefix of volumes anywhere.
  [[nodiscard]] bool isVolumeUdi(const std::string& udi) const;

  /// Fills `info` for `info.VolumeId`. True when every step that a volume needs succeeded; a volume
  /// that is not mounted is a success with `MountPoint` and `ReadOnly` as they were. On failure the
  /// fields filled so far stay. Blocks for a second more when the card's disk must be rebuilt
  /// first.
  [[nodiscard]] bool GetVolumeInfo(HalVolumeInfo& info);

  /// Makes the kernel remove and add again the devices of the card at `backingDevice`, so that a
  /// service that could not identify the card sees it afresh. Blocks for one second. Files that
  /// cannot be written are passed over.
  static void _RebuildCardReaderTree(const std::string& backingDevice);

  /// The bus library's message filter; leaves every message to other handlers too.
  static DBusHandlerResult dBusHandler(DBusConnection* connection, DBusMessage* message,
                                       void* userData);

 private:
  tHalManager() = default;

  /// True when `error` is set; logs it then.
  bool _CheckDBusError(const tDBusError& error);

  /// A call to the service; null when `path` is no object path, or when memory is short.
  tDBusMessage _NewCall(const char* path, const char* interface, const char* method);

  /// Sends a call and waits for the reply. Null, logged, when an error or nothing comes back.
  /// `operation` is the caller's name as it stands in the log.
  tDBusMessage _CallHal(DBusMessage* call, const char* operation);

  /// Asks for a property. Null, logged, when no reply comes.
  tDBusMessage _CallForProperty(const char* udi, const char* key, const char* method,
                                const char* operation);

  /// Reads a property that is an int32_t, a bool or a std::string. Empty, logged, when no reply of
  /// that type comes.
  template <typename tValue>
  std::optional<tValue> _QueryProperty(const char* udi, const char* key);

  // Reads a property into a field, which is 0, false or empty on failure. True when it was read.
  template <typename tValue>
  [[nodiscard]] bool _ReadProperty(const std::string& udi, const char* key, tValue& value);
  [[nodiscard]] bool _ReadInherited(const std::string& udi, const char* key, int32_t& value);

  /// A call that asks for a mount, still without arguments. Null, logged, on failure.
  tDBusMessage _NewMountCall(const char* udi);

  /// Completes and makes such a call. True when the service agreed.
  bool _Mount(DBusMessage* call, const std::string& mountPoint, const std::string& fsType,
              const std::vector<std::string>& options);

  /// True when the service itself sent this signal. A broadcast comes only through the match rules,
  /// whose sender the bus has checked; of a signal sent straight to this process the bus is asked.
  bool _IsFromHal(DBusMessage* signal);

  void _HandlePropertyModified(DBusMessage* message);
  void _HandleDeviceAdded(DBusMessage* message);
  void _HandleDeviceRemoved(DBusMessage* message);

  // The steps of `GetVolumeInfo`. False when a query failed that the step needs.
  [[nodiscard]] bool _GetDevicesAbove(HalVolumeInfo& info);
  [[nodiscard]] bool _GetBus(HalVolumeInfo& info);
  [[nodiscard]] bool _GetMount(HalVolumeInfo& info);
  [[nodiscard]] bool _GetMmcHost(HalVolumeInfo& info);
  bool _GetUsbHub(HalVolumeInfo& info);
  bool _GetScsiAddress(HalVolumeInfo& info);

  DBusConnection* m_pConnection = nullptr;
  IHalManagerCallback* m_pCallback = nullptr;
};
