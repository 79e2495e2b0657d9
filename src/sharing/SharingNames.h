#pragma once

#include <cstdint>

// The well-known texts and numbers of the sharing between units.

inline constexpr const char* kShareInterface = "eth0";
inline constexpr const char* kAnnouncementGroup = "224.1.1.1";
inline constexpr uint16_t kAnnouncementPort = 10000;
inline constexpr int kAnnouncementTimeToLive = 5;

/// The NFS server's table of remote mounts.
inline constexpr const char* kNfsRemoteMountTable = "/var/lib/nfs/rmtab";
