/* The floor for the daemon: the same calls in the same order on the same bus, then one connection
 * and one send a stick, and nothing else.
 *
 *   bare-client PORT
 */

#include <arpa/inet.h>
#include <dbus/dbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "hal_names.h"

enum { MESSAGE_BYTES = 520 }; /* about what an arrival takes on the wire */

static DBusConnection* bus;
static int port;
static char pending_added[PATH_BYTES]; /* signals are only noted in the filter */
static char pending_mounted[PATH_BYTES];

static DBusMessage* call(const char* path, const char* interface, const char* method,
                         const char* argument) {
  DBusMessage* message = dbus_message_new_method_call(HAL_SERVICE, path, interface, method);
  dbus_message_append_args(message, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
  DBusError error;
  dbus_error_init(&error);
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(bus, message, -1, &error);
  dbus_error_free(&error);
  dbus_message_unref(message);
  return reply;
}

static int get_string(const char* path, const char* key, char* value) {
  DBusMessage* reply = call(path, HAL_DEVICE, "GetPropertyString", key);
  const char* text = NULL;
  if (reply == NULL) return 0;
  dbus_message_get_args(reply, NULL, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  snprintf(value, PATH_BYTES, "%s", text);
  dbus_message_unref(reply);
  return 1;
}

static int get_int(const char* path, const char* key) {
  DBusMessage* reply = call(path, HAL_DEVICE, "GetPropertyInteger", key);
  if (reply == NULL) return 0;
  dbus_message_unref(reply);
  return 1;
}

static dbus_bool_t get_bool(const char* path, const char* key) {
  DBusMessage* reply = call(path, HAL_DEVICE, "GetPropertyBoolean", key);
  dbus_bool_t value = FALSE;
  if (reply == NULL) return 0;
  dbus_message_get_args(reply, NULL, DBUS_TYPE_BOOLEAN, &value, DBUS_TYPE_INVALID);
  dbus_message_unref(reply);
  return value;
}

static void get_int_inherited(const char* path, const char* key) {
  char device[PATH_BYTES];
  snprintf(device, sizeof device, "%s", path);
  while (!get_int(device, key) && get_string(device, "info.parent", device)) {
  }
}

/* Asks for everything about a volume; returns whether it is mounted. */
static int describe(const char* volume) {
  char storage[PATH_BYTES], controller[PATH_BYTES], host[PATH_BYTES], text[PATH_BYTES];
  get_string(volume, "info.parent", storage);
  get_string(storage, "info.parent", controller);
  get_string(controller, "info.parent", host);
  get_string(host, "linux.sysfs_path", text);
  get_int_inherited(host, "usb_device.vendor_id");
  get_int_inherited(host, "usb_device.product_id");
  get_string(controller, "linux.subsystem", text);
  get_int(controller, "scsi.host");
  get_int(controller, "scsi.bus");
  get_int(controller, "scsi.target");
  get_int(controller, "scsi.lun");
  get_string(volume, "volume.fstype", text);
  get_string(volume, "block.device", text);
  if (!get_bool(volume, "volume.is_mounted")) return 0;
  get_string(volume, "volume.mount_point", text);
  get_bool(volume, "volume.is_mounted_read_only");
  return 1;
}

static void mount(const char* volume) {
  DBusMessage* message = dbus_message_new_method_call(HAL_SERVICE, volume, HAL_VOLUME, "Mount");
  const char *name = "sda1", *type = "vfat";
  const char** options = NULL;
  dbus_message_append_args(message, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &type,
                           DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &options, 0, DBUS_TYPE_INVALID);
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(bus, message, -1, NULL);
  if (reply != NULL) dbus_message_unref(reply);
  dbus_message_unref(message);
}

static void tell_application(void) {
  static const char message[MESSAGE_BYTES];
  struct sockaddr_in address = {0};
  address.sin_family = AF_INET;
  address.sin_port = htons((uint16_t)port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(connection, (struct sockaddr*)&address, sizeof address) == 0) {
    send(connection, message, sizeof message, MSG_NOSIGNAL);
  }
  close(connection);
}

static DBusHandlerResult handle(DBusConnection* connection, DBusMessage* message, void* unused) {
  (void)connection;
  (void)unused;
  const char* device = "";
  if (dbus_message_is_signal(message, HAL_MANAGER, "DeviceAdded")) {
    dbus_message_get_args(message, NULL, DBUS_TYPE_STRING, &device, DBUS_TYPE_INVALID);
    snprintf(pending_added, sizeof pending_added, "%s", device);
  } else if (dbus_message_is_signal(message, HAL_DEVICE, "PropertyModified")) {
    snprintf(pending_mounted, sizeof pending_mounted, "%s", dbus_message_get_path(message));
  }
  return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

static void scan(void) {
  DBusMessage* reply = call(HAL_MANAGER_PATH, HAL_MANAGER, "FindDeviceByCapability", "volume");
  char** volumes = NULL;
  int count = 0;
  if (reply == NULL) return;
  dbus_message_get_args(reply, NULL, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &volumes, &count,
                        DBUS_TYPE_INVALID);
  for (int i = 0; i < count; ++i) {
    if (describe(volumes[i])) describe(volumes[i]);
  }
  dbus_free_string_array(volumes);
  dbus_message_unref(reply);
}

int main(int argc, char* argv[]) {
  if (argc != 2) return 1;
  port = atoi(argv[1]);
  bus = dbus_bus_get(DBUS_BUS_SYSTEM, NULL);
  if (bus == NULL || !dbus_bus_name_has_owner(bus, HAL_SERVICE, NULL)) return 1;
  dbus_connection_add_filter(bus, handle, NULL, NULL);
  DBusError error;
  dbus_error_init(&error);
  dbus_bus_add_match(bus, "type='signal',interface='" HAL_MANAGER "',sender='" HAL_SERVICE "'",
                     &error);
  dbus_bus_add_match(bus, "type='signal',interface='" HAL_DEVICE "',sender='" HAL_SERVICE "'",
                     &error);
  scan();
  while (dbus_connection_read_write_dispatch(bus, -1)) {
    if (pending_added[0] != '\0') {
      if (!describe(pending_added)) mount(pending_added);
      pending_added[0] = '\0';
    }
    if (pending_mounted[0] != '\0') {
      if (get_bool(pending_mounted, "volume.is_mounted")) describe(pending_mounted);
      tell_application();
      pending_mounted[0] = '\0';
    }
  }
  return 0;
}
