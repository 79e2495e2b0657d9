#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "storage/DBusHandles.h"

// A hardware service that is made of tables. In a program that links ScriptedBus.cpp and
// IdleConnection.cpp it stands in for the bus library's connection, while messages are the
// library's own.

/// What a reply carries: one value, or nothing.
using tScriptedReply = std::variant<std::monostate, std::string, int32_t, bool,
                                    std::vector<std::string>, std::vector<int32_t>>;

struct tScriptedError {
  std::string name;
  std::string text;
};

struct tScriptedBus {
  /// By device and key. What is missing is refused as the service does.
  std::map<std::string, std::map<std::string, tScriptedReply>> devices{};
  std::map<std::string, tScriptedReply> found{};   ///< by capability; none: no reply at all
  std::map<std::string, tScriptedError> errors{};  ///< by method
  std::string owner = ":1.7";                      ///< of the service's name; empty: nobody

  /// Each call, as its method's name, the device's path from its last slash, and its texts.
  std::vector<std::string> calls{};
};

/// The bus of this test.
tScriptedBus& Bus();

/// A signal that the service broadcasts, still without arguments.
tDBusMessage Signal(const char* path, const char* interface, const char* member);

/// Connects tHalManager to the scripted bus, once for the whole program.
void ConnectToScriptedBus();
