#include "volumes/Reports.h"

#include "frame/NfsRoot.h"
#include "sharing/NfsData.h"
#include "storage/HalVolumeInfo.h"

DataSourceInfo ArrivalOf(const HalVolumeInfo& info, const std::string& friendlyName,
                         const std::string& contentId, const std::string& serialNumber) {
  return {.arrival = true,
          .memoryCard = !info.Cid.empty(),
          .readOnly = info.ReadOnly,
          .path = MapNfsRootPath(info.MountPoint),
          .friendlyName = friendlyName,
          .key = info.Cid,
          .contentId = contentId,
          .serialNumber = serialNumber};
}

DataSourceInfo ArrivalOf(const NFS_DATA_T& share, const std::string& mountPath) {
  return {.arrival = true,
          .memoryCard = !share.fromPeer || !share.key.empty(),
          .remote = !share.fromPeer,
          .readOnly = !share.fromPeer || share.readOnly,
          .path = MapNfsRootPath(mountPath),
          .friendlyName = share.friendlyName,
          .key = share.key,
          .contentId = share.contentId,
          .serialNumber = share.serialNumber};
}

DataSourceInfo RemovalOf(const std::string& mountPath) {
  return {.path = MapNfsRootPath(mountPath)};
}
