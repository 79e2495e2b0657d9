#pragma once

#include <string>

#include "messaging/DataSourceInfo.h"

// What is reported to the display application about a volume. No side effects.

struct HalVolumeInfo;
struct NFS_DATA_T;

/// The arrival of a local volume. One that has a CID is a memory card.
[[nodiscard]] DataSourceInfo ArrivalOf(const HalVolumeInfo& info, const std::string& friendlyName,
                                       const std::string& contentId,
                                       const std::string& serialNumber);

/// The arrival of a share that is mounted at `mountPath`. What the peer shares is reported as it
/// was announced, like a volume of this unit's own; a share of any other unit is a remote,
/// read-only memory card, whatever it announces.
[[nodiscard]] DataSourceInfo ArrivalOf(const NFS_DATA_T& share, const std::string& mountPath);

/// The removal of whatever is mounted at `mountPath`.
[[nodiscard]] DataSourceInfo RemovalOf(const std::string& mountPath);
