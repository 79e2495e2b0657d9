#pragma once

#include <set>
#include <string>

#include "frame/Mutex.h"
#include "sharing/NfsData.h"

/// Orders shares by the directory that they export, which is what they are looked up by.
struct tByPath {
  using is_transparent = void;
  bool operator()(const NFS_DATA_T& a, const NFS_DATA_T& b) const { return a.path < b.path; }
  bool operator()(const NFS_DATA_T& a, const std::string& b) const { return a.path < b; }
  bool operator()(const std::string& a, const NFS_DATA_T& b) const { return a < b.path; }
};

/// The local volumes that are shared, one for each path, and the lock that guards them and, in the
/// service publisher, all that belongs with them. Owned by tVoldrake, which outlives the publisher.
struct tExportTable {
  tMutex mutex;
  std::set<NFS_DATA_T, tByPath> services GUARDED_BY(mutex);
};
