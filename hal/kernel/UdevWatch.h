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

// What udev tells of disks and partitions, as facts.

namespace halkernel {

/// Told in the order of udev's events, on the main loop.
class IUdevListener {
 public:
  virtual ~IUdevListener() = default;
  /// A disk or partition is there, or something about it changed.
  virtual void Told(const BlockFacts& facts) = 0;
  /// It is gone. `written`: somebody wrote the event by hand; device and mounts are still there.
  virtual void Gone(const std::string& sysfsPath, bool written) = 0;
  /// Events were lost: everything is to be looked at anew.
  virtual void StartOver() = 0;
};

/// Main thread only.
class UdevWatch {
 public:
  /// `listener` is not owned.
  explicit UdevWatch(IUdevListener& listener) : listener_(listener) {}

  /// From the return on events are kept; they are told on the main loop. Gives the reason of a
  /// failure, udev that does not run among them.
  std::optional<std::string> Start();

  /// Every disk and partition that udev has dealt with, disks before their partitions. May be
  /// called without Start. What vanishes meanwhile is left out. Blocks while sysfs is read.
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
  void Tell(udev_device* device);

  IUdevListener& listener_;
  std::unique_ptr<udev, Unref> context_;
  std::unique_ptr<udev_monitor, Unref> monitor_;
  glib::EventSource source_;
  bool eventsLost_ = false;
};

}  // namespace halkernel
