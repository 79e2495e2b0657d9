#pragma once

#include <string>
#include <vector>

#include "hal/face/DeviceTree.h"

/// Records what reaches the observer of a tree: "+ NAME", "- NAME", "~ NAME KEY KEY".
class TreeTape : public hal::IDeviceTreeObserver {
 public:
  explicit TreeTape(hal::DeviceTree& tree) { tree.SetObserver(this); }

  void DeviceAdded(const std::string& udi) override { lines_.push_back("+ " + NameOf(udi)); }
  void DeviceRemoved(const std::string& udi) override { lines_.push_back("- " + NameOf(udi)); }
  void PropertiesModified(const std::string& udi,
                          const std::vector<hal::PropertyChange>& changes) override {
    std::string line = "~ " + NameOf(udi);
    for (const hal::PropertyChange& change : changes) line += " " + change.key;
    lines_.push_back(line);
  }

  void Note(const std::string& line) { lines_.push_back(line); }
  /// What was recorded since the last call.
  std::vector<std::string> Take() { return std::exchange(lines_, {}); }

 private:
  static std::string NameOf(const std::string& udi) {
    return udi.substr(std::string("/org/freedesktop/Hal/devices/").size());
  }

  std::vector<std::string> lines_;
};
