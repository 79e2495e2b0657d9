#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "hal/kernel/BlockFacts.h"

// What is mounted or used for swapping, as plain values.

namespace halkernel {

struct MountEntry {
  DeviceNumber number;
  std::string source;
  std::string target;
  bool readOnly = false;
  bool namedBySource = false;  // its number is not a device's, but its source is a device

  friend bool operator==(const MountEntry&, const MountEntry&) = default;
};

struct Mounts {
  std::vector<MountEntry> entries;  // in the order of the table
  std::vector<std::string> swaps;   // device nodes

  friend bool operator==(const Mounts&, const Mounts&) = default;
};

/// Knows what is mounted.
class IMountSource {
 public:
  virtual ~IMountSource() = default;
  /// Reads the table again: some changes cause no event, such as a file system that becomes
  /// read-only after an error. Returns true if the content has changed.
  virtual bool Refresh() = 0;
  virtual const Mounts& Current() const = 0;
};

/// Mounts by device. A device's mounts are the entries with its number, and those with its node as
/// source where the file system has no device number of its own.
class MountIndex {
 public:
  MountIndex() = default;
  explicit MountIndex(const Mounts& mounts);

  /// The first in the table; null if the device is not mounted. Valid as long as the index.
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
