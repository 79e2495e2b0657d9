#pragma once

#include <string>
#include <utility>

#include "frame/Shell.h"

struct HalVolumeInfo;
struct NFS_DATA_T;

/// Mounts and unmounts with the system's own tools. Without state of its own; any thread may call
/// it. Each call blocks until its command has ended, which for an unreachable unit takes the NFS
/// client's time-out. Nothing is retried. The share's texts are untrusted.
class CNfsMounter {
 public:
  explicit CNfsMounter(tCommandRunner run = RunCommand) : m_Run(std::move(run)) {}

  /// Mounts a share of another unit, or remounts it where something is mounted already; writable
  /// only when it comes from the peer and is not read-only. `mountPath` receives the mount
  /// directory in every case. True when the mount command ended with status 0; the directory stays
  /// either way.
  [[nodiscard]] bool MountRemoteShare(const NFS_DATA_T& share, std::string& mountPath);

  /// Unmounts a share, forced and lazily, and removes its directory. `mountPath` receives the
  /// directory. True when the unmount command ended with status 0.
  bool UnmountRemoteShare(const NFS_DATA_T& share, std::string& mountPath);

  /// Unmounts a local volume and removes its directory. True when the command ended with status 0.
  bool UnmountVolume(const HalVolumeInfo& info);

 private:
  /// Makes the mount directory. True when a file system is mounted there already.
  [[nodiscard]] bool _PrepareDirectory(const std::string& path);

  const tCommandRunner m_Run;
};
