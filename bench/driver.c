/* A hardware service and display application written for speed, which time what a client does.
 *
 *   bench-driver arrivals COUNT PORT COMMAND...   COUNT sticks come one after the other
 *   bench-driver startup COUNT PORT COMMAND...    COUNT mounted sticks are there when COMMAND
 * starts
 *
 * COMMAND is the client under test: the daemon or the bare client. Every device answers from one
 * table. Output, in microseconds: for arrivals one line a stick, "DeviceAdded to Mount" and
 * "is_mounted to the first byte at the application"; for startup one number, from exec to the last
 * answer of the scan.
 */

#include <arpa/inet.h>
#include <dbus/dbus.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "hal_names.h"

enum { REPLY_TIMEOUT_MS = 20000 };

static DBusConnection* bus;
static int listener;
static int volume_count;  /* devices that exist: 0 .. volume_count - 1 */
static int mounted_count; /* of these the first ones are mounted */
static int mount_calls;
static int answers_left; /* startup: answers until the scan is through */
static double mount_time;
static double last_answer_time;

static double now_us(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static void die(const char* what) {
  fprintf(stderr, "bench-driver: %s\n", what);
  exit(1);
}

/* ---- The table: which object has which property ---- */

static const struct {
  const char* object;
  const char* key;
  int type; /* 's', 'i', 'b', or 'p': a device of this kind, with the same number */
  const char* text;
  int number;
} kProperties[] = {
    {VOLUME_PREFIX, "info.parent", 'p', STORAGE_PREFIX, 0},
    {STORAGE_PREFIX, "info.parent", 'p', CONTROLLER_PREFIX, 0},
    {CONTROLLER_PREFIX, "info.parent", 'p', SCSI_HOST_PREFIX, 0},
    {SCSI_HOST_PREFIX, "info.parent", 'p', INTERFACE_PREFIX, 0},
    {INTERFACE_PREFIX, "info.parent", 'p', USB_DEVICE_PREFIX, 0},
    {SCSI_HOST_PREFIX, "linux.sysfs_path", 's', "/sys/usb1/1-1/1-1.3/1-1.3:1.0/host2", 0},
    {USB_DEVICE_PREFIX, "usb_device.vendor_id", 'i', NULL, 0x90c},
    {USB_DEVICE_PREFIX, "usb_device.product_id", 'i', NULL, 0x1000},
    {CONTROLLER_PREFIX, "linux.subsystem", 's', "scsi", 0},
    {CONTROLLER_PREFIX, "scsi.host", 'i', NULL, 2},
    {CONTROLLER_PREFIX, "scsi.bus", 'i', NULL, 0},
    {CONTROLLER_PREFIX, "scsi.target", 'i', NULL, 0},
    {CONTROLLER_PREFIX, "scsi.lun", 'i', NULL, 0},
    {VOLUME_PREFIX, "volume.fstype", 's', "vfat", 0},
    {VOLUME_PREFIX, "block.device", 'd', "/dev/sd", 0},
    {VOLUME_PREFIX, "volume.is_mounted", 'm', NULL, 0},
    {VOLUME_PREFIX, "volume.mount_point", 'd', "/media/sd", 0},
    {VOLUME_PREFIX, "volume.is_mounted_read_only", 'b', NULL, 0},
};

/* Appends the property's value. False when the device has no such property. */
static dbus_bool_t append_property(DBusMessage* reply, const char* path, const char* key) {
  for (size_t i = 0; i < sizeof kProperties / sizeof *kProperties; ++i) {
    const size_t length = strlen(kProperties[i].object);
    if (strcmp(kProperties[i].key, key) != 0 || strncmp(path, kProperties[i].object, length) != 0) {
      continue;
    }
    const int device = atoi(path + length);
    char text[PATH_BYTES];
    const char* value = text;
    dbus_int32_t number = kProperties[i].number;
    dbus_bool_t flag = device < mounted_count;
    switch (kProperties[i].type) {
      case 's':
        value = kProperties[i].text;
        return dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
      case 'p':
      case 'd':
        snprintf(text, sizeof text, "%s%d", kProperties[i].text, device);
        return dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
      case 'i':
        return dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
      case 'm':
        return dbus_message_append_args(reply, DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_INVALID);
      default:
        flag = FALSE;
        return dbus_message_append_args(reply, DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_INVALID);
    }
  }
  return FALSE;
}

static void append_volumes(DBusMessage* reply) {
  DBusMessageIter arguments, list;
  dbus_message_iter_init_append(reply, &arguments);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "s", &list);
  for (int i = 0; i < volume_count; ++i) {
    char path[PATH_BYTES];
    const char* text = path;
    snprintf(path, sizeof path, VOLUME_PREFIX "%d", i);
    dbus_message_iter_append_basic(&list, DBUS_TYPE_STRING, &text);
  }
  dbus_message_iter_close_container(&arguments, &list);
}

/* ---- The bus ---- */

static DBusHandlerResult handle(DBusConnection* connection, DBusMessage* message, void* unused) {
  (void)unused;
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  DBusMessage* reply = dbus_message_new_method_return(message);
  if (dbus_message_is_method_call(message, HAL_VOLUME, "Mount")) {
    mount_time = now_us();
    ++mount_calls;
    dbus_int32_t success = 0;
    dbus_message_append_args(reply, DBUS_TYPE_INT32, &success, DBUS_TYPE_INVALID);
  } else if (dbus_message_is_method_call(message, HAL_MANAGER, "FindDeviceByCapability")) {
    append_volumes(reply);
  } else {
    const char* key = "";
    dbus_message_get_args(message, NULL, DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID);
    if (!append_property(reply, dbus_message_get_path(message), key)) {
      dbus_message_unref(reply);
      reply = dbus_message_new_error(message, "org.freedesktop.Hal.NoSuchProperty",
                                     "No such property on this device");
    }
  }
  dbus_connection_send(connection, reply, NULL);
  dbus_connection_flush(connection);
  dbus_message_unref(reply);
  if (answers_left > 0 && --answers_left == 0) last_answer_time = now_us();
  return DBUS_HANDLER_RESULT_HANDLED;
}

static void connect_bus(void) {
  bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, NULL);
  if (bus == NULL) die("no bus");
  if (dbus_bus_request_name(bus, HAL_SERVICE, 0, NULL) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    die("the service's name is taken");
  }
  dbus_connection_add_filter(bus, handle, NULL, NULL);
}

static void send_device_added(int device) {
  char path[PATH_BYTES];
  const char* text = path;
  snprintf(path, sizeof path, VOLUME_PREFIX "%d", device);
  DBusMessage* signal = dbus_message_new_signal(HAL_MANAGER_PATH, HAL_MANAGER, "DeviceAdded");
  dbus_message_append_args(signal, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(bus, signal, NULL);
  dbus_connection_flush(bus);
  dbus_message_unref(signal);
}

static void send_mounted(int device) {
  char path[PATH_BYTES];
  snprintf(path, sizeof path, VOLUME_PREFIX "%d", device);
  DBusMessage* signal = dbus_message_new_signal(path, HAL_DEVICE, "PropertyModified");
  DBusMessageIter arguments, list, change;
  dbus_int32_t count = 1;
  dbus_bool_t no = FALSE;
  const char* key = "volume.is_mounted";
  dbus_message_iter_init_append(signal, &arguments);
  dbus_message_iter_append_basic(&arguments, DBUS_TYPE_INT32, &count);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "(sbb)", &list);
  dbus_message_iter_open_container(&list, DBUS_TYPE_STRUCT, NULL, &change);
  dbus_message_iter_append_basic(&change, DBUS_TYPE_STRING, &key);
  dbus_message_iter_append_basic(&change, DBUS_TYPE_BOOLEAN, &no);
  dbus_message_iter_append_basic(&change, DBUS_TYPE_BOOLEAN, &no);
  dbus_message_iter_close_container(&list, &change);
  dbus_message_iter_close_container(&arguments, &list);
  dbus_connection_send(bus, signal, NULL);
  dbus_connection_flush(bus);
  dbus_message_unref(signal);
}

/* Serves the bus until `done`, or with none until the application is connected to. */
static void serve_until(int (*done)(void)) {
  int fd = -1;
  dbus_connection_get_unix_fd(bus, &fd);
  for (;;) {
    if (!dbus_connection_read_write(bus, 0)) die("the bus went away");
    while (dbus_connection_dispatch(bus) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    if (done != NULL && done()) return;
    struct pollfd ready[] = {{fd, POLLIN, 0}, {listener, POLLIN, 0}};
    if (poll(ready, done == NULL ? 2 : 1, REPLY_TIMEOUT_MS) <= 0) die("the client does not go on");
    if (done == NULL && ready[1].revents != 0) return;
  }
}

static int has_mounted(void) {
  return mount_calls > 0;
}

static int has_scanned(void) {
  return answers_left == 0;
}

/* ---- The application ---- */

static void listen_as_application(int port) {
  const int on = 1;
  struct sockaddr_in address = {0};
  address.sin_family = AF_INET;
  address.sin_port = htons((uint16_t)port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener, (struct sockaddr*)&address, sizeof address) != 0) die("port taken");
  listen(listener, 128);
}

/* Takes one message; returns the time of its first byte. */
static double take_message(void) {
  char bytes[20000];
  const int connection = accept(listener, NULL, NULL);
  if (recv(connection, bytes, 1, 0) != 1) die("a connection without a byte");
  const double first = now_us();
  while (recv(connection, bytes, sizeof bytes, 0) > 0) {
  }
  close(connection);
  return first;
}

/* ---- The two measurements ---- */

static void measure_arrivals(int count) {
  answers_left = 1;
  serve_until(has_scanned); /* the client's question for what is there: nothing */
  usleep(300000);           /* it goes into its main loop */
  for (int device = 0; device < count; ++device) {
    volume_count = device + 1;
    mount_calls = 0;
    const double added = now_us();
    send_device_added(device);
    serve_until(has_mounted);
    const double mounted_at = mount_time;
    mounted_count = device + 1;
    const double mounted = now_us();
    send_mounted(device);
    serve_until(NULL);
    printf("%.1f %.1f\n", mounted_at - added, take_message() - mounted);
  }
}

static void measure_startup(int count, double started, int answers_per_volume) {
  volume_count = mounted_count = count;
  answers_left = 1 + count * answers_per_volume;
  serve_until(has_scanned);
  printf("%.1f\n", last_answer_time - started);
}

int main(int argc, char* argv[]) {
  if (argc < 5) die("usage: bench-driver arrivals|startup COUNT PORT COMMAND...");
  const int startup = strcmp(argv[1], "startup") == 0;
  const int count = atoi(argv[2]);
  /* Describing a mounted stick takes 24 calls; the scan does so, and again to register it. */
  const int answers_per_volume = 2 * 24;
  connect_bus();
  listen_as_application(atoi(argv[3]));
  if (startup) volume_count = mounted_count = count;

  const double started = now_us();
  const pid_t client = fork();
  if (client == 0) {
    execv(argv[4], argv + 4);
    _exit(127);
  }
  if (startup) {
    measure_startup(count, started, answers_per_volume);
  } else {
    measure_arrivals(count);
  }
  fflush(stdout);
  while (read(STDIN_FILENO, &(char){0}, 1) > 0) {
  }
  kill(client, SIGKILL);
  waitpid(client, NULL, 0);
  return 0;
}
