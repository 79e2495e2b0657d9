#include "storage/NfsMounter.h"

#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "sharing/NfsData.h"
#include "storage/HalVolumeInfo.h"
#include "storage/RemoteMountPath.h"

namespace {

/// True when the last step of the path is no name of its own, which a source can only bring about
/// under a root with fewer than two slashes: what is mounted there would not be below the root.
bool LeadsElsewhere(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return name.empty() || name == "." || name == "..";
}

}  // namespace

bool CNfsMounter::_PrepareDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0700) == 0) return false;
  if (errno != EEXIST) {
    // The line ends without the number that it announces: those who read logs know it so.
    Log("ERROR Failed to create directory '" + Printable(path) + "' with error ", kLogError);
    return false;
  }
  if (m_Run("mountpoint -q " + ShellWord(path)) != 0) return false;
  Log("Mountpoint: '" + Printable(path) + "' is already mounted.", kLogInfo);
  return true;
}

bool CNfsMounter::MountRemoteShare(const NFS_DATA_T& share, std::string& mountPath) {
  mountPath = MakeRemoteMountPath(share.path);
  if (LeadsElsewhere(mountPath)) {
    Log("MountRemoteShare: refused '" + Printable(share.path) + "' at '" + Printable(mountPath) +
            "'",
        kLogError);
    return false;
  }
  const bool mounted = _PrepareDirectory(mountPath);
  const std::string mode = share.fromPeer && !share.readOnly ? "rw" : "ro";
  const std::string command = mounted ? "mount -o remount," + mode + " " + ShellWord(mountPath)
                                      : "mount -t nfs -o " + mode +
                                            ",rsize=1280,soft,udp,noatime,nodiratime " +
                                            ShellWord(share.path) + " " + ShellWord(mountPath);
  const int status = m_Run(command);
  if (status == 0) {
    Log("Mount command: '" + Printable(command) + "' PASS", kLogInfo);
    return true;
  }
  Log("Mount command: '" + Printable(command) + "' FAIL with error " + std::to_string(status),
      kLogError);
  return false;
}

bool CNfsMounter::UnmountRemoteShare(const NFS_DATA_T& share, std::string& mountPath) {
  mountPath = MakeRemoteMountPath(share.path);
  const std::string command = "umount -f -l " + ShellWord(mountPath);
  const int status = m_Run(command);
  RemoveDirectory(mountPath, false);
  if (status == 0) {
    Log("Umount command: " + Printable(command) + " PASS", kLogInfo);
    return true;
  }
  Log("Umount command: " + Printable(command) + " FAIL", kLogError);
  return false;
}

bool CNfsMounter::UnmountVolume(const HalVolumeInfo& info) {
  const int status = m_Run("umount " + ShellWord(info.MountPoint));
  RemoveDirectory(info.MountPoint, false);
  return status == 0;
}
