// The calls that tHalManager makes to the hardware service.

#include <new>
#include <utility>

#include "frame/Log.h"
#include "frame/Settings.h"
#include "frame/Text.h"
#include "storage/HalNames.h"
#include "storage/tHalManager.h"

namespace {

/// Every real chain of devices is far shorter; only a chain that runs in a circle is not.
constexpr int kMaxAncestors = 32;

/// What a process that can go on gets from the heap.
constexpr size_t kSomeMemory = 65'536;

/// A remount goes by the same name in the log.
constexpr const char* kMountOperation = "mountVolume()";

/// Appends a text. False when it is not UTF-8, which the bus does not carry and the bus library
/// would abort over.
bool AppendText(DBusMessageIter* arguments, const std::string& text) {
  const char* bytes = text.c_str();
  return dbus_validate_utf8(bytes, nullptr) &&
         dbus_message_iter_append_basic(arguments, DBUS_TYPE_STRING, &bytes);
}

bool AppendTextList(DBusMessageIter* arguments, const std::vector<std::string>& texts) {
  DBusMessageIter list;
  if (!dbus_message_iter_open_container(arguments, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING,
                                        &list)) {
    return false;
  }
  for (const std::string& text : texts) {
    if (!AppendText(&list, text)) {
      dbus_message_iter_abandon_container(arguments, &list);
      return false;
    }
  }
  return dbus_message_iter_close_container(arguments, &list);
}

/// Ends the process when there is no memory.
void InsistOnMemory() {
  ::operator delete(::operator new(kSomeMemory));
}

std::string LogText(const char* operation, const char* event) {
  return std::string("HAL: ") + operation + " - " + event;
}

}  // namespace

tDBusMessage tHalManager::_NewCall(const char* path, const char* interface, const char* method) {
  if (!dbus_validate_path(path, nullptr)) return nullptr;
  return tDBusMessage(dbus_message_new_method_call(kHalService, path, interface, method));
}

tDBusMessage tHalManager::_CallHal(DBusMessage* call, const char* operation) {
  tDBusError error;
  tDBusMessage reply(dbus_connection_send_with_reply_and_block(
      m_pConnection, call, DBUS_TIMEOUT_USE_DEFAULT, error.Get()));
  // Without memory the bus library hears no answers, and each further call would wait in vain.
  if (dbus_error_has_name(error.Get(), DBUS_ERROR_NO_REPLY)) InsistOnMemory();
  if (_CheckDBusError(error)) return nullptr;
  if (!reply) {
    Log(LogText(operation, "reply message NULL"), kLogWarning);
    return nullptr;
  }
  return reply;
}

tDBusMessage tHalManager::_CallForProperty(const char* udi, const char* key, const char* method,
                                           const char* operation) {
  if (m_pConnection == nullptr) {
    Log("HAL: Connection - closed", kLogWarning);
    return nullptr;
  }
  const tDBusMessage call = _NewCall(udi, kHalDeviceInterface, method);
  if (!call || !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID)) {
    Log(LogText(operation, "could not create DBus message"), kLogWarning);
    return nullptr;
  }
  return _CallHal(call.get(), operation);
}

namespace {

/// How a property of each type is asked for, what its reply holds and what that stands for.
template <typename tValue>
struct tPropertyKind;

template <>
struct tPropertyKind<int32_t> {
  static constexpr const char* kMethod = "GetPropertyInteger";
  static constexpr const char* kOperation = "propertyInt()";
  static constexpr int kReplyType = DBUS_TYPE_INT32;
  using tReplied = dbus_int32_t;
  static int32_t Value(dbus_int32_t replied) { return replied; }
};

template <>
struct tPropertyKind<bool> {
  static constexpr const char* kMethod = "GetPropertyBoolean";
  static constexpr const char* kOperation = "propertyBool()";
  static constexpr int kReplyType = DBUS_TYPE_BOOLEAN;
  using tReplied = dbus_bool_t;
  static bool Value(dbus_bool_t replied) { return replied != FALSE; }
};

template <>
struct tPropertyKind<std::string> {
  static constexpr const char* kMethod = "GetPropertyString";
  static constexpr const char* kOperation = "propertyString()";
  static constexpr int kReplyType = DBUS_TYPE_STRING;
  using tReplied = const char*;
  static std::string Value(const char* replied) { return replied != nullptr ? replied : ""; }
};

/// The value or, `ok` being false then, that of a property that cannot be read.
template <typename tValue>
tValue ValueOr(std::optional<tValue> property, bool& ok) {
  ok = property.has_value();
  return std::move(property).value_or(tValue{});
}

}  // namespace

template <typename tValue>
std::optional<tValue> tHalManager::_QueryProperty(const char* udi, const char* key) {
  using tKind = tPropertyKind<tValue>;
  const tDBusMessage reply = _CallForProperty(udi, key, tKind::kMethod, tKind::kOperation);
  if (!reply) return std::nullopt;
  DBusMessageIter result;
  if (!dbus_message_iter_init(reply.get(), &result) ||
      dbus_message_iter_get_arg_type(&result) != tKind::kReplyType) {
    Log(LogText(tKind::kOperation, "invalid message type"), kLogWarning);
    return std::nullopt;
  }
  typename tKind::tReplied replied{};
  dbus_message_iter_get_basic(&result, &replied);
  return tKind::Value(replied);
}

// Used where a volume's record is gathered, too.
template std::optional<int32_t> tHalManager::_QueryProperty(const char* udi, const char* key);
template std::optional<bool> tHalManager::_QueryProperty(const char* udi, const char* key);
template std::optional<std::string> tHalManager::_QueryProperty(const char* udi, const char* key);

int32_t tHalManager::propertyInt(const char* udi, const char* key, bool& ok) {
  return ValueOr(_QueryProperty<int32_t>(udi, key), ok);
}

bool tHalManager::propertyBool(const char* udi, const char* key, bool& ok) {
  return ValueOr(_QueryProperty<bool>(udi, key), ok);
}

std::string tHalManager::propertyString(const char* udi, const char* key, bool& ok) {
  return ValueOr(_QueryProperty<std::string>(udi, key), ok);
}

int32_t tHalManager::propertyIntInherited(const char* udi, const char* key, bool& ok) {
  std::string device = udi;
  for (int ancestor = 0; ancestor <= kMaxAncestors; ++ancestor) {
    const int32_t value = propertyInt(device.c_str(), key, ok);
    if (ok) return value;
    device = propertyString(device.c_str(), kHalParent, ok);
    if (!ok) return 0;
  }
  Log(std::string("HAL: propertyIntInherited() - too many ancestors of ") + udi, kLogError);
  ok = false;
  return 0;
}

std::vector<std::string> tHalManager::findDeviceByCapability(const char* capability) {
  std::vector<std::string> devices;
  if (m_pConnection == nullptr) {
    Log("HAL: Connection - closed", kLogWarning);
    return devices;
  }
  const char* operation = "findDeviceByCapability()";
  const tDBusMessage call =
      _NewCall(kHalManagerPath, kHalManagerInterface, "FindDeviceByCapability");
  if (!call ||
      !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &capability, DBUS_TYPE_INVALID)) {
    Log(LogText(operation, "could not create DBus message"), kLogWarning);
    return devices;
  }
  const tDBusMessage reply = _CallHal(call.get(), operation);
  if (!reply) return devices;
  DBusMessageIter result;
  if (!dbus_message_iter_init(reply.get(), &result) ||
      dbus_message_iter_get_arg_type(&result) != DBUS_TYPE_ARRAY) {
    Log(LogText(operation, "invalid message type"), kLogWarning);
    return devices;
  }
  DBusMessageIter element;
  dbus_message_iter_recurse(&result, &element);
  for (; dbus_message_iter_get_arg_type(&element) == DBUS_TYPE_STRING;
       dbus_message_iter_next(&element)) {
    const char* udi = nullptr;
    dbus_message_iter_get_basic(&element, &udi);
    devices.emplace_back(udi);
    Log(Printable(udi), kLogDebug);
  }
  return devices;
}

bool tHalManager::mountVolume(const char* udi, const std::string& mountPoint,
                              const std::string& fsType) {
  const tDBusMessage call = _NewMountCall(udi);
  if (!call) return false;
  std::vector<std::string> options;
  if (fsType.starts_with("vfat") && gVfatMountOpts != nullptr) {
    options.emplace_back(gVfatMountOpts);
    Log(options.front(), kLogDebug);
  }
  return _Mount(call.get(), mountPoint, fsType, options);
}

bool tHalManager::remountVolume(const char* udi, const std::string& mountPoint,
                                const std::string& fsType, bool readWrite) {
  const tDBusMessage call = _NewMountCall(udi);
  return call && _Mount(call.get(), mountPoint, fsType, {"remount", readWrite ? "rw" : "ro"});
}

tDBusMessage tHalManager::_NewMountCall(const char* udi) {
  if (m_pConnection == nullptr) {
    Log("HAL: Connection - closed", kLogWarning);
    return nullptr;
  }
  tDBusMessage call = _NewCall(udi, kHalVolumeInterface, "Mount");
  if (!call) Log(LogText(kMountOperation, "could not create DBus message"), kLogWarning);
  return call;
}

bool tHalManager::_Mount(DBusMessage* call, const std::string& mountPoint,
                         const std::string& fsType, const std::vector<std::string>& options) {
  DBusMessageIter arguments;
  dbus_message_iter_init_append(call, &arguments);
  if (!AppendText(&arguments, mountPoint) || !AppendText(&arguments, fsType) ||
      !AppendTextList(&arguments, options)) {
    Log(LogText(kMountOperation, "could not append arguments"), kLogWarning);
    return false;
  }
  return _CallHal(call, kMountOperation) != nullptr;
}

bool tHalManager::isVolumeUdi(const std::string& udi) const {
  return udi.find(kHalVolumePrefix) != std::string::npos;
}
