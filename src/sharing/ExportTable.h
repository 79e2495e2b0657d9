#pragma once

#include <map>
#include <string>

#include "frame/Mutex.h"
#include "sharing/NfsData.h"

/// The local volumes that are shared, by export path, and the lock that guards them and, in the
/// service publisher, all that belongs with them. Owned by tVoldrake, which outlives the publisher.
struct tExportTable {
  tMutex mutex;
  std::map<std::string, NFS_DATA_T> services GUARDED_BY(mutex);
};
