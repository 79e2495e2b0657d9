// In place of the bus library's connection: it is always there, and nothing comes by itself.
// What a call gets is up to the program that links this.

#include <dbus/dbus.h>

namespace {

/// Only its address counts.
char gConnection;

}  // namespace

extern "C" {

DBusConnection* dbus_bus_get(DBusBusType, DBusError*) {
  return reinterpret_cast<DBusConnection*>(&gConnection);
}

void dbus_connection_set_exit_on_disconnect(DBusConnection*, dbus_bool_t) {}

dbus_bool_t dbus_connection_set_watch_functions(DBusConnection*, DBusAddWatchFunction,
                                                DBusRemoveWatchFunction, DBusWatchToggledFunction,
                                                void*, DBusFreeFunction) {
  return TRUE;
}

dbus_bool_t dbus_connection_set_timeout_functions(DBusConnection*, DBusAddTimeoutFunction,
                                                  DBusRemoveTimeoutFunction,
                                                  DBusTimeoutToggledFunction, void*,
                                                  DBusFreeFunction) {
  return TRUE;
}

void dbus_connection_set_wakeup_main_function(DBusConnection*, DBusWakeupMainFunction, void*,
                                              DBusFreeFunction) {}

dbus_bool_t dbus_bus_name_has_owner(DBusConnection*, const char*, DBusError*) {
  return TRUE;
}

dbus_bool_t dbus_connection_add_filter(DBusConnection*, DBusHandleMessageFunction, void*,
                                       DBusFreeFunction) {
  return TRUE;
}

void dbus_bus_add_match(DBusConnection*, const char*, DBusError*) {}

}  // extern "C"
