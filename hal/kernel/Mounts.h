#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "hal/kernel/BlockFacts.h"

// What is mounted and swapped on, as plain values.

namespace halkernel {

struct MountEntry {
  DeviceNumber number;
  std::string source;
  std::string target;
  bool readOnly = false;
  bool namedBySource = false;  // its number is no device's, but its source is one

  friend bool operator==(const MountEntry&, const MountEntry&) = default;
};

struct Mounts {
  std::vector<MountEntry> entries;  // in the order of the table
  std::vector<std::string> swaps;   // device nodes

  friend bool operator==(const Mounts&, const Mounts&) = default;
};

/// What is mounted, and when it changes.
class IMountSource {
 public:
  virtual ~IMountSource() = default;
  /// Looks again: some changes wake nobody, such as a file system that turns read-only by an error.
  /// True when the content differs from the one before.
  virtual bool Refresh() = 0;
  virtual const Mounts& Current() const = 0;
};

/// Mounts by device. A device's mounts are the entries with its number, and those with its node as
/// source where the file system has no device number of its own.
class MountIndex {
 public:
  MountIndex() = default;
  explicit MountIndex(const Mounts& mounts);

  /// The first in the table; null when the device is not mounted. Valid as long as the index.
  const MountEntry* First(DeviceNumber number, const std::string& node) const;
  /// All, in the order of the table.
  std::vector<MountEntry> All(DeviceNumber number, const std::string& node) const;
  bool IsSwap(const std::string& node) const { return swaps_.contains(node); }

 private:
  /// Places in `entries_`, in rising order.
  std::vector<std::size_t> Find(DeviceNumber number, const std::string& node) const;

  std::vector<MountEntry> entries_;
  std::map<DeviceNumber, std::vector<std::size_t>> byNumber_;
  std::map<std::string, std::vector<std::size_t>> bySource_;
  std::set<std::string> swaps_;
};

}  // namespace halkernel
