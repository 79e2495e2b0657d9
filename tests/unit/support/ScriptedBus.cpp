#include "support/ScriptedBus.h"

#include <gtest/gtest.h>

#include "storage/tHalManager.h"

namespace {

void Append(DBusMessageIter* to, const std::string& text) {
  const char* bytes = text.c_str();
  ASSERT_TRUE(dbus_message_iter_append_basic(to, DBUS_TYPE_STRING, &bytes));
}

void Append(DBusMessageIter* to, int32_t number) {
  ASSERT_TRUE(dbus_message_iter_append_basic(to, DBUS_TYPE_INT32, &number));
}

void Append(DBusMessageIter* to, bool flag) {
  const dbus_bool_t value = flag;
  ASSERT_TRUE(dbus_message_iter_append_basic(to, DBUS_TYPE_BOOLEAN, &value));
}

void Append(DBusMessageIter*, std::monostate) {}

template <typename tValue>
void Append(DBusMessageIter* to, const std::vector<tValue>& values) {
  const char* const type = std::is_same_v<tValue, std::string> ? "s" : "i";
  DBusMessageIter list;
  ASSERT_TRUE(dbus_message_iter_open_container(to, DBUS_TYPE_ARRAY, type, &list));
  for (const tValue& value : values) Append(&list, value);
  ASSERT_TRUE(dbus_message_iter_close_container(to, &list));
}

DBusMessage* ReplyOf(DBusMessage* call, const tScriptedReply& reply) {
  DBusMessage* const message = dbus_message_new_method_return(call);
  DBusMessageIter arguments;
  dbus_message_iter_init_append(message, &arguments);
  std::visit([&arguments](const auto& value) { Append(&arguments, value); }, reply);
  return message;
}

/// The texts of a call, one in another container too.
void AddTexts(DBusMessageIter* from, std::string& line) {
  for (; dbus_message_iter_get_arg_type(from) != DBUS_TYPE_INVALID; dbus_message_iter_next(from)) {
    if (dbus_message_iter_get_arg_type(from) == DBUS_TYPE_ARRAY) {
      DBusMessageIter list;
      dbus_message_iter_recurse(from, &list);
      line += " [";
      AddTexts(&list, line);
      line += " ]";
      continue;
    }
    const char* text = nullptr;
    dbus_message_iter_get_basic(from, &text);
    line += std::string(" ") + text;
  }
}

std::string FirstText(DBusMessage* call) {
  const char* text = "";
  dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  return text;
}

DBusMessage* Refuse(DBusError* error, const tScriptedError& refusal) {
  dbus_set_error(error, refusal.name.c_str(), "%s", refusal.text.c_str());
  return nullptr;
}

DBusMessage* Answer(DBusMessage* call, DBusError* error) {
  const std::string method = dbus_message_get_member(call);
  if (const auto refusal = Bus().errors.find(method); refusal != Bus().errors.end()) {
    return Refuse(error, refusal->second);
  }
  if (method == "Mount") return ReplyOf(call, int32_t{0});
  if (method == "GetNameOwner") {
    if (!Bus().owner.empty()) return ReplyOf(call, Bus().owner);
    return Refuse(error, {"org.freedesktop.DBus.Error.NameHasNoOwner", "nobody"});
  }
  const std::string text = FirstText(call);
  if (method == "FindDeviceByCapability") {
    const auto found = Bus().found.find(text);
    return found != Bus().found.end() ? ReplyOf(call, found->second) : nullptr;
  }
  const auto& properties = Bus().devices[dbus_message_get_path(call)];
  const auto property = properties.find(text);
  if (property != properties.end()) return ReplyOf(call, property->second);
  return Refuse(error,
                {"org.freedesktop.Hal.NoSuchProperty",
                 "No property " + text + " on device with id " + dbus_message_get_path(call)});
}

}  // namespace

tScriptedBus& Bus() {
  static tScriptedBus bus;
  return bus;
}

tDBusMessage Signal(const char* path, const char* interface, const char* member) {
  tDBusMessage signal(dbus_message_new_signal(path, interface, member));
  dbus_message_set_sender(signal.get(), ":1.7");
  return signal;
}

void ConnectToScriptedBus() {
  static const bool connected = tHalManager::getInstance()->initHal();
  ASSERT_TRUE(connected);
}

// ---- In place of the bus library's call

extern "C" {

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection*, DBusMessage* call, int,
                                                       DBusError* error) {
  dbus_message_set_serial(call, 1);
  const std::string path = dbus_message_get_path(call);
  std::string line =
      std::string(dbus_message_get_member(call)) + " " + path.substr(path.rfind('/') + 1);
  if (DBusMessageIter arguments; dbus_message_iter_init(call, &arguments)) {
    AddTexts(&arguments, line);
  }
  Bus().calls.push_back(line);
  return Answer(call, error);
}

}  // extern "C"

/// The real one writes to the machine's own devices.
void tHalManager::_RebuildCardReaderTree(const std::string& backingDevice) {
  Bus().calls.push_back("rebuild " + backingDevice);
}
