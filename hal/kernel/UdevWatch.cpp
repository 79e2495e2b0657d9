#include "hal/kernel/UdevWatch.h"

#include <glib-unix.h>
#include <libudev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "hal/kernel/Log.h"
#include "hal/kernel/UdevFacts.h"

namespace halkernel {
namespace {

/// udev's own way to say that it runs; the library looks there too.
constexpr const char* kUdevControl = "/run/udev/control";
/// Room for a burst of some ten thousand events, about 1 KiB each.
constexpr int kReceiveBufferBytes = 16 * 1024 * 1024;
/// Others on the main loop get their turn in between.
constexpr int kEventsAtOnce = 64;

std::string Failure(const char* what, int error = errno) {
  return std::string(what) + ": " + std::strerror(error);
}

/// Of a device in sysfs that udev names and that the library, or sysfs, does not show.
void LogUnread(const std::string& path) {
  Log(LOG_WARNING, path.substr(path.rfind('/') + 1) +
                       " cannot be read, and stays unknown until its next udev event");
}

/// Whether udev has not dealt with the device yet, so that there will be an event. False also if
/// what udev or the kernel knows of it cannot be read: the library then has no node of it.
bool EventIsToCome(udev_device* device) {
  if (udev_device_get_devnode(device) == nullptr) return false;
  errno = 0;
  const char* time = udev_device_get_property_value(device, "USEC_INITIALIZED");
  return time == nullptr && (errno == 0 || errno == ENOENT);
}

}  // namespace

void UdevWatch::Unref::operator()(udev* context) const {
  udev_unref(context);
}

void UdevWatch::Unref::operator()(udev_device* device) const {
  udev_device_unref(device);
}

void UdevWatch::Unref::operator()(udev_monitor* monitor) const {
  udev_monitor_unref(monitor);
}

bool UdevWatch::Context() {
  if (!context_) context_.reset(udev_new());
  return context_ != nullptr;
}

std::optional<std::string> UdevWatch::Start() {
  if (access(kUdevControl, F_OK) != 0) return Failure("udev is not running: /run/udev/control");
  if (!Context()) return Failure("cannot use libudev");
  monitor_.reset(udev_monitor_new_from_netlink(context_.get(), "udev"));
  if (!monitor_) return Failure("cannot listen to udev");
  udev_monitor* monitor = monitor_.get();
  if (udev_monitor_filter_add_match_subsystem_devtype(monitor, "block", nullptr) < 0) {
    return Failure("cannot listen to udev's block events");
  }
  // Takes a privilege; without it the default has to do, and losses are noticed.
  if (udev_monitor_set_receive_buffer_size(monitor, kReceiveBufferBytes) < 0) {
    Log(LOG_DEBUG, "the buffer for udev's events keeps its size");
  }
  if (udev_monitor_enable_receiving(monitor) < 0) return Failure("cannot listen to udev");
  GSource* source = g_unix_fd_source_new(udev_monitor_get_fd(monitor), G_IO_IN);
  g_source_set_callback(source, G_SOURCE_FUNC(&UdevWatch::OnReady), this, nullptr);
  source_ = glib::EventSource(source);
  return std::nullopt;
}

std::vector<BlockFacts> UdevWatch::Enumerate() {
  std::vector<BlockFacts> found;
  if (!Context()) return found;
  const glib::Pointer<udev_enumerate, udev_enumerate_unref> devices(
      udev_enumerate_new(context_.get()));
  int result = devices ? udev_enumerate_add_match_subsystem(devices.get(), "block") : -ENOMEM;
  if (result >= 0) result = udev_enumerate_scan_devices(devices.get());
  // What cannot be read is left out of the list, and the rest is there.
  if (result < 0) Log(LOG_ERR, Failure("cannot read the whole list of disks", -result));
  if (!devices) return found;
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(devices.get())) {
    const std::unique_ptr<udev_device, Unref> device(
        udev_device_new_from_syspath(context_.get(), udev_list_entry_get_name(entry)));
    if (device && EventIsToCome(device.get())) continue;
    std::optional<BlockFacts> facts;
    if (device) facts = FactsOf(device.get());
    if (facts) {
      found.push_back(std::move(*facts));
    } else {
      LogUnread(udev_list_entry_get_name(entry));
    }
  }
  std::stable_partition(found.begin(), found.end(),
                        [](const BlockFacts& facts) { return facts.IsDisk(); });
  return found;
}

gboolean UdevWatch::OnReady(gint, GIOCondition, gpointer watch) {
  static_cast<UdevWatch*>(watch)->ReadEvents();
  return G_SOURCE_CONTINUE;
}

void UdevWatch::ReadEvents() {
  for (int count = 0; count < kEventsAtOnce; ++count) {
    errno = 0;
    const std::unique_ptr<udev_device, Unref> device(udev_monitor_receive_device(monitor_.get()));
    if (device) {
      Report(device.get());
      continue;
    }
    if (errno != ENOBUFS) {
      StartOverIfDue();
      return;
    }
    eventsLost_ = true;
  }
}

/// Requires: no event is waiting. Those that were kept are older than what is there now, so they
/// have to be reported before.
void UdevWatch::StartOverIfDue() {
  if (!eventsLost_) return;
  eventsLost_ = false;
  Log(LOG_WARNING, "udev events were lost: checking all disks again");
  listener_.StartOver();
}

void UdevWatch::Report(udev_device* device) {
  const char* action = udev_device_get_action(device);
  const char* path = udev_device_get_syspath(device);
  if (action == nullptr || path == nullptr) return;
  const std::string text = action;
  Log(LOG_DEBUG, "udev: " + text + " " + path);
  if (text == "remove") {
    listener_.Gone(path, udev_device_get_property_value(device, "SYNTH_UUID") != nullptr);
  } else if (std::optional<BlockFacts> facts = FactsOf(device)) {
    listener_.BlockDeviceReported(*facts);
  } else {
    LogUnread(path);
  }
}

}  // namespace halkernel
