#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "glib/Handles.h"
#include "hal/kernel/BlockFacts.h"

struct udev;
struct udev_device;
struct udev_monitor;

// What udev reports about disks and partitions, as facts.

namespace halkernel {

/// Notified in the order of udev's events, on the main loop.
class IUdevListener {
 public:
  virtual ~IUdevListener() = default;
  /// A disk or partition has appeared or changed.
  virtual void BlockDeviceReported(const BlockFacts& facts) = 0;
  /// It is gone. `written`: the event was written by hand; device and mounts still exist.
  virtual void Gone(const std::string& sysfsPath, bool written) = 0;
  /// Events were lost: everything has to be examined again.
  virtual void StartOver() = 0;
};

/// Main thread only.
class UdevWatch {
 public:
  /// `listener` is not owned.
  explicit UdevWatch(IUdevListener& listener) : listener_(listener) {}

  /// Collects events from the return on; the main loop delivers them. Returns the reason for a
  /// failure, for instance if udev does not run.
  std::optional<std::string> Start();

  /// Every disk and partition that udev has processed, disks before their partitions; skips those
  /// that vanish meanwhile. May be called without Start. Blocks while it reads sysfs.
  std::vector<BlockFacts> Enumerate();

 private:
  struct Unref {
    void operator()(udev* context) const;
    void operator()(udev_device* device) const;
    void operator()(udev_monitor* monitor) const;
  };

  static gboolean OnReady(gint descriptor, GIOCondition condition, gpointer watch);
  bool Context();
  void ReadEvents();
  void StartOverIfDue();
  void Report(udev_device* device);

  IUdevListener& listener_;
  std::unique_ptr<udev, Unref> context_;
  std::unique_ptr<udev_monitor, Unref> monitor_;
  glib::EventSource source_;
  bool eventsLost_ = false;
};

}  // namespace halkernel
