#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "glib/Handles.h"
#include "hal/kernel/Mounts.h"

// The mount table and the swap areas, read from the kernel's files with libmount.

namespace halkernel {

/// Parses a text in the format of /proc/PID/mountinfo; skips invalid lines. Returns nullopt if the
/// text cannot be parsed at all.
std::optional<std::vector<MountEntry>> ReadMountInfo(std::FILE* text);
/// The device nodes in a file in the format of /proc/swaps; empty if it cannot be read.
std::vector<std::string> ReadSwaps(const std::string& path);

/// Follows the mount table of this process's mount namespace. Main thread only.
class MountTable : public IMountSource {
 public:
  using Handler = std::function<void()>;

  /// `onChange` runs on the main loop after the table has been read again and differs.
  explicit MountTable(Handler onChange) : onChange_(std::move(onChange)) {}
  ~MountTable() override;
  MountTable(const MountTable&) = delete;
  MountTable& operator=(const MountTable&) = delete;

  /// Starts to follow the table and reads it. Returns the reason for a failure.
  std::optional<std::string> Start();

  // IMountSource; neither calls the handler. The content is unchanged if the table cannot be read.
  bool Refresh() override;
  const Mounts& Current() const override { return mounts_; }

 private:
  static gboolean OnReady(gint descriptor, GIOCondition condition, gpointer table);

  const Handler onChange_;
  int descriptor_ = -1;
  glib::EventSource source_;
  Mounts mounts_;
};

}  // namespace halkernel
