/* The floor for the hardware service: what hearing of a disk takes with libudev alone.
 *
 *   bare-udev            prints "ready", then for each event of a disk the time in seconds
 *   bare-udev enumerate  reads every disk and partition that is there, and ends
 */

#include <errno.h>
#include <libudev.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

/* What a volume's object is made of. */
static void read_device(struct udev_device* device) {
  static const char* const properties[] = {
      "DEVNAME", "MAJOR", "MINOR", "ID_FS_USAGE", "ID_FS_TYPE", "ID_FS_UUID", "ID_FS_LABEL_ENC"};
  for (size_t at = 0; at < sizeof properties / sizeof *properties; ++at) {
    udev_device_get_property_value(device, properties[at]);
  }
  udev_device_get_sysattr_value(device, "size");
  udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device");
}

static int enumerate(struct udev* context) {
  struct udev_enumerate* devices = udev_enumerate_new(context);
  udev_enumerate_add_match_subsystem(devices, "block");
  if (udev_enumerate_scan_devices(devices) < 0) return 1;
  struct udev_list_entry* entry;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(devices)) {
    struct udev_device* device =
        udev_device_new_from_syspath(context, udev_list_entry_get_name(entry));
    if (device == NULL) continue;
    read_device(device);
    udev_device_unref(device);
  }
  udev_enumerate_unref(devices);
  return 0;
}

static int follow(struct udev* context) {
  struct udev_monitor* monitor = udev_monitor_new_from_netlink(context, "udev");
  if (monitor == NULL) return 1;
  udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", NULL);
  if (udev_monitor_enable_receiving(monitor) < 0) return 1;
  puts("ready");
  fflush(stdout);
  struct pollfd ready = {udev_monitor_get_fd(monitor), POLLIN, 0};
  while (poll(&ready, 1, -1) > 0) {
    struct udev_device* device = udev_monitor_receive_device(monitor);
    if (device == NULL) continue;
    read_device(device);
    udev_device_unref(device);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    printf("%lld.%06ld\n", (long long)now.tv_sec, now.tv_nsec / 1000);
    fflush(stdout);
  }
  return 1;
}

int main(int argc, char* argv[]) {
  struct udev* context = udev_new();
  if (context == NULL) return 1;
  return argc > 1 && strcmp(argv[1], "enumerate") == 0 ? enumerate(context) : follow(context);
}
