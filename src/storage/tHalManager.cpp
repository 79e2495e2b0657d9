// The connection to the bus and the signals that come over it. The calls to the hardware service
// are in HalCalls.cpp, the gathering of a volume's record in HalVolumeQuery.cpp.

#include "storage/tHalManager.h"

#include <string_view>

#include "frame/Assert.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "storage/BusSource.h"
#include "storage/HalNames.h"
#include "storage/IHalManagerCallback.h"

tHalManager* tHalManager::getInstance() {
  static tHalManager instance;
  return &instance;
}

bool tHalManager::_CheckDBusError(const tDBusError& error) {
  if (!error.IsSet()) return false;
  const std::string_view message = WithoutTrailingSpace(error.Message());
  Log(Printable(std::string(error.Name()).append(": ").append(message)), kLogError);
  return true;
}

bool tHalManager::initHal() {
  Log("initHal()", kLogDebug);
  if (m_pConnection != nullptr) {
    Log("HAL: Connection - already open", kLogWarning);
    return false;
  }
  tDBusError error;
  m_pConnection = dbus_bus_get(DBUS_BUS_SYSTEM, error.Get());
  if (m_pConnection == nullptr) {
    _CheckDBusError(error);
    return false;
  }
  // A shared connection ends the process by default when the bus goes away.
  dbus_connection_set_exit_on_disconnect(m_pConnection, FALSE);
  if (!AttachToMainContext(m_pConnection)) {
    Log("HAL: Could not attach the connection", kLogError);
    return false;
  }

  const bool hasOwner = dbus_bus_name_has_owner(m_pConnection, kHalService, error.Get());
  if (_CheckDBusError(error)) return false;
  if (!hasOwner) {
    Log("HAL: Check hald process is running", kLogWarning);
    return false;
  }
  if (!dbus_connection_add_filter(m_pConnection, dBusHandler, nullptr, nullptr)) {
    // The one text with a line end of its own: those who read logs know it so.
    Log("HAL: Could not add filter\n", kLogWarning);
    return false;
  }
  dbus_bus_add_match(m_pConnection, kHalManagerMatch, error.Get());
  if (_CheckDBusError(error)) return false;
  dbus_bus_add_match(m_pConnection, kHalDeviceMatch, error.Get());
  return !_CheckDBusError(error);
}

bool tHalManager::freeHal() {
  Log("freeHal()", kLogDebug);
  if (m_pConnection == nullptr) {
    Log("HAL: Connection - closed", kLogWarning);
    return false;
  }
  tDBusError error;
  dbus_bus_remove_match(m_pConnection, kHalManagerMatch, error.Get());
  if (_CheckDBusError(error)) return false;
  dbus_bus_remove_match(m_pConnection, kHalDeviceMatch, error.Get());
  if (_CheckDBusError(error)) return false;
  dbus_connection_remove_filter(m_pConnection, dBusHandler, nullptr);
  DetachFromMainContext(m_pConnection);
  dbus_connection_unref(m_pConnection);
  m_pConnection = nullptr;
  return true;
}

void tHalManager::InstallCallback(IHalManagerCallback* pCallback) {
  VOLDRAKE_ASSERT(pCallback != 0);
  m_pCallback = pCallback;
}

DBusHandlerResult tHalManager::dBusHandler(DBusConnection*, DBusMessage* message, void*) {
  Log("dBusHandler()", kLogDebug);
  tHalManager* const self = getInstance();
  if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
    Log("HAL: Connection - lost", kLogError);
  }

  void (tHalManager::*handle)(DBusMessage*) = nullptr;
  if (dbus_message_is_signal(message, kHalDeviceInterface, "PropertyModified")) {
    handle = &tHalManager::_HandlePropertyModified;
  } else if (dbus_message_is_signal(message, kHalManagerInterface, "DeviceAdded")) {
    handle = &tHalManager::_HandleDeviceAdded;
  } else if (dbus_message_is_signal(message, kHalManagerInterface, "DeviceRemoved")) {
    handle = &tHalManager::_HandleDeviceRemoved;
  }
  if (handle == nullptr) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;

  if (self->_IsFromHal(message)) {
    (self->*handle)(message);
  } else {
    const char* sender = dbus_message_get_sender(message);
    Log(std::string("dBusHandler: ") + dbus_message_get_member(message) + " from " +
            (sender != nullptr ? sender : "nobody") + ", who is not " + kHalService + ", dropped",
        kLogWarning);
  }
  return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

bool tHalManager::_IsFromHal(DBusMessage* signal) {
  const char* sender = dbus_message_get_sender(signal);
  if (sender == nullptr) return false;
  if (dbus_message_get_destination(signal) == nullptr) return true;

  const tDBusMessage call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                       DBUS_INTERFACE_DBUS, "GetNameOwner"));
  const char* service = kHalService;
  if (!call ||
      !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &service, DBUS_TYPE_INVALID)) {
    return false;
  }
  tDBusError error;
  const tDBusMessage reply(dbus_connection_send_with_reply_and_block(
      m_pConnection, call.get(), DBUS_TIMEOUT_USE_DEFAULT, error.Get()));
  const char* owner = nullptr;
  if (!reply || !dbus_message_get_args(reply.get(), error.Get(), DBUS_TYPE_STRING, &owner,
                                       DBUS_TYPE_INVALID)) {
    return false;
  }
  return std::string_view(owner) == sender;
}

namespace {

/// Steps into one (name, added, removed) structure of a PropertyModified signal. Null when it is
/// not of that form.
const char* ModifiedPropertyName(DBusMessageIter* changes) {
  if (dbus_message_iter_get_arg_type(changes) != DBUS_TYPE_STRUCT) return nullptr;
  DBusMessageIter change;
  dbus_message_iter_recurse(changes, &change);
  if (dbus_message_iter_get_arg_type(&change) != DBUS_TYPE_STRING) return nullptr;
  const char* name = nullptr;
  dbus_message_iter_get_basic(&change, &name);
  for (int flag = 0; flag < 2; ++flag) {
    dbus_message_iter_next(&change);
    if (dbus_message_iter_get_arg_type(&change) != DBUS_TYPE_BOOLEAN) return nullptr;
  }
  return name;
}

}  // namespace

void tHalManager::_HandlePropertyModified(DBusMessage* message) {
  DBusMessageIter arguments;
  if (!dbus_message_iter_init(message, &arguments) ||
      dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_INT32) {
    Log("dBusHandler: PropertyModified: arg error", kLogError);
    return;
  }
  dbus_int32_t count = 0;
  dbus_message_iter_get_basic(&arguments, &count);
  dbus_message_iter_next(&arguments);
  if (dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_ARRAY) {
    Log("dBusHandler: PropertyModified: arg error", kLogError);
    return;
  }
  DBusMessageIter changes;
  dbus_message_iter_recurse(&arguments, &changes);
  for (dbus_int32_t i = 0; i < count; ++i) {
    if (dbus_message_iter_get_arg_type(&changes) == DBUS_TYPE_INVALID) return;
    const char* name = ModifiedPropertyName(&changes);
    if (name == nullptr) {
      Log("dBusHandler: PropertyModified: arg error", kLogError);
      return;
    }
    if (m_pCallback != nullptr) {
      m_pCallback->HalManagerPropertyChangedCb(dbus_message_get_path(message), name);
    }
    dbus_message_iter_next(&changes);
  }
}

void tHalManager::_HandleDeviceAdded(DBusMessage* message) {
  Log(std::string("dBusHandler: DeviceAdded path - ") + dbus_message_get_path(message) +
          "interface - " + dbus_message_get_interface(message) + "member - " +
          dbus_message_get_member(message),
      kLogDebug);
  tDBusError error;
  const char* udi = nullptr;
  if (!dbus_message_get_args(message, error.Get(), DBUS_TYPE_STRING, &udi, DBUS_TYPE_INVALID)) {
    _CheckDBusError(error);
    return;
  }
  if (m_pCallback != nullptr) m_pCallback->HalManagerDeviceAddedCb(udi);
}

void tHalManager::_HandleDeviceRemoved(DBusMessage* message) {
  Log(std::string("dBusHandler: DeviceRemoved path - ") + dbus_message_get_path(message) +
          " interface - " + dbus_message_get_interface(message) + " member - " +
          dbus_message_get_member(message),
      kLogDebug);
  tDBusError error;
  const char* udi = nullptr;
  if (!dbus_message_get_args(message, error.Get(), DBUS_TYPE_STRING, &udi, DBUS_TYPE_INVALID)) {
    Log("dBusHandler: DeviceRemoved: arg error", kLogError);
    _CheckDBusError(error);
    return;
  }
  Log("dBusHandler: DeviceRemoved: calling _DeviceRemoved", kLogDebug);
  if (m_pCallback != nullptr) m_pCallback->HalManagerDeviceRemovedCb(udi);
}
