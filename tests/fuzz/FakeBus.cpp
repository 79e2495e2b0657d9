#include "FakeBus.h"

#include <array>

#include "storage/tHalManager.h"

namespace {

Source* gReplies = nullptr;

constexpr std::array kTexts{
    "usb",
    "mmc",
    "scsi",
    "/dev/sda1",
    "/dev/mmcblk0p1",
    "/media/sda1",
    "vfat",
    "/sys/devices/usb1/1-1/1-1.3/1-1.3:1.0/host2",
    "035344534433322080206bb243014100",
    "volume.is_mounted",
    "volume.is_mounted_read_only",
    "/org/freedesktop/Hal/devices/volume_uuid_A",
    "/org/freedesktop/Hal/devices/usb_scsi_mmc",
    "/org/freedesktop/Hal/devices/computer_storage_unknown_disk",
    "/",
    "",
};

void AppendValue(DBusMessageIter* to, Source& source, int depth);

void AppendText(DBusMessageIter* to, Source& source) {
  const std::string text = BusText(source);
  const char* bytes = text.c_str();
  Require(dbus_message_iter_append_basic(to, DBUS_TYPE_STRING, &bytes));
}

void AppendChanges(DBusMessageIter* to, Source& source) {
  DBusMessageIter list;
  Require(dbus_message_iter_open_container(to, DBUS_TYPE_ARRAY, "(sbb)", &list));
  for (unsigned left = source.Choice(4); left > 0; --left) {
    DBusMessageIter change;
    Require(dbus_message_iter_open_container(&list, DBUS_TYPE_STRUCT, nullptr, &change));
    AppendText(&change, source);
    for (int flag = 0; flag < 2; ++flag) {
      const dbus_bool_t value = source.Choice(2) != 0;
      Require(dbus_message_iter_append_basic(&change, DBUS_TYPE_BOOLEAN, &value));
    }
    Require(dbus_message_iter_close_container(&list, &change));
  }
  Require(dbus_message_iter_close_container(to, &list));
}

void AppendTexts(DBusMessageIter* to, Source& source) {
  DBusMessageIter list;
  Require(dbus_message_iter_open_container(to, DBUS_TYPE_ARRAY, "s", &list));
  for (unsigned left = source.Choice(4); left > 0; --left) AppendText(&list, source);
  Require(dbus_message_iter_close_container(to, &list));
}

void AppendStructure(DBusMessageIter* to, Source& source, int depth) {
  DBusMessageIter structure;
  Require(dbus_message_iter_open_container(to, DBUS_TYPE_STRUCT, nullptr, &structure));
  for (unsigned left = 1 + source.Choice(3); left > 0; --left) {
    AppendValue(&structure, source, depth + 1);
  }
  Require(dbus_message_iter_close_container(to, &structure));
}

void AppendValue(DBusMessageIter* to, Source& source, int depth) {
  constexpr int kDeepest = 3;
  switch (source.Choice(depth < kDeepest ? 7 : 4)) {
    case 0:
    case 1:
      return AppendText(to, source);
    case 2: {
      const dbus_int32_t number = static_cast<dbus_int32_t>(source.Byte()) - 8;
      Require(dbus_message_iter_append_basic(to, DBUS_TYPE_INT32, &number));
      return;
    }
    case 3: {
      const dbus_bool_t flag = source.Choice(2) != 0;
      Require(dbus_message_iter_append_basic(to, DBUS_TYPE_BOOLEAN, &flag));
      return;
    }
    case 4:
      return AppendChanges(to, source);
    case 5:
      return AppendTexts(to, source);
    default:
      return AppendStructure(to, source, depth);
  }
}

}  // namespace

void SetReplies(Source* source) {
  gReplies = source;
}

void AppendArguments(DBusMessage* message, Source& source) {
  DBusMessageIter arguments;
  dbus_message_iter_init_append(message, &arguments);
  for (unsigned left = source.Choice(4); left > 0; --left) AppendValue(&arguments, source, 0);
}

std::string BusText(Source& source) {
  const unsigned choice = source.Choice(2 * kTexts.size());
  if (choice < kTexts.size()) return kTexts[choice];
  std::string text = source.Text(40);
  if (!dbus_validate_utf8(text.c_str(), nullptr)) text.clear();
  return text;
}

// ---- In place of the bus library's call

extern "C" {

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection*, DBusMessage* call, int,
                                                       DBusError* error) {
  dbus_message_set_serial(call, 1);
  const unsigned kind = gReplies == nullptr || gReplies->Empty() ? 0 : gReplies->Choice(16);
  if (kind == 0) {
    dbus_set_error(error, "org.freedesktop.Hal.NoSuchProperty", "%s", "no");
    return nullptr;
  }
  if (kind == 1) return nullptr;
  DBusMessage* const reply = dbus_message_new_method_return(call);
  Require(reply != nullptr);
  const std::string method = dbus_message_get_member(call);
  DBusMessageIter arguments;
  dbus_message_iter_init_append(reply, &arguments);
  if (kind == 2) {
    AppendArguments(reply, *gReplies);
  } else if (method == "GetPropertyString") {
    AppendText(&arguments, *gReplies);
  } else if (method == "FindDeviceByCapability") {
    AppendTexts(&arguments, *gReplies);
  } else {
    const dbus_int32_t value = static_cast<dbus_int32_t>(gReplies->Byte());
    const dbus_bool_t flag = value % 4 != 0;
    const bool isFlag = method == "GetPropertyBoolean";
    Require(dbus_message_iter_append_basic(&arguments, isFlag ? DBUS_TYPE_BOOLEAN : DBUS_TYPE_INT32,
                                           isFlag ? static_cast<const void*>(&flag) : &value));
  }
  return reply;
}

}  // extern "C"

/// The real one writes to the machine's own devices.
void tHalManager::_RebuildCardReaderTree(const std::string&) {}
