#pragma once

#include <dbus/dbus.h>

#include <memory>

struct tDBusMessageRelease {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};

/// Holds one reference to a message.
using tDBusMessage = std::unique_ptr<DBusMessage, tDBusMessageRelease>;

/// A DBusError that is freed at the end of its life.
class tDBusError {
 public:
  tDBusError() { dbus_error_init(&m_Error); }
  ~tDBusError() { dbus_error_free(&m_Error); }
  tDBusError(const tDBusError&) = delete;
  tDBusError& operator=(const tDBusError&) = delete;

  DBusError* Get() { return &m_Error; }
  [[nodiscard]] bool IsSet() const { return dbus_error_is_set(&m_Error); }
  [[nodiscard]] const char* Name() const { return m_Error.name; }
  [[nodiscard]] const char* Message() const { return m_Error.message; }

 private:
  DBusError m_Error;
};
