#pragma once

#include <cstdint>
#include <string>

/// Kind of a shared volume; 16 bits on the wire. Received values are passed on whatever they are.
enum class MEDIA_TYPE_T : int32_t {
  kInternalDisk = 0,
  kVolume = 1,
};

/// The description of one shared volume, as announced between units.
struct NFS_DATA_T {
  /// The exported directory; on the receiving side SENDER:DIRECTORY, the source of the mount.
  std::string path;
  MEDIA_TYPE_T mediaType = MEDIA_TYPE_T::kInternalDisk;
  std::string key;           ///< a card's CID; empty for other volumes
  std::string friendlyName;  ///< for people
  std::string spare{};       ///< always empty
  bool readOnly = false;
  int32_t remainingLifeMs = 0;  ///< receiving side: the share is forgotten when it reaches 0
  bool fromPeer = false;        ///< receiving side: the sender is the configured peer unit
  std::string contentId;        ///< announcing side only, not transmitted
  std::string serialNumber;     ///< announcing side only, not transmitted
};
