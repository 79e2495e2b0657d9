#pragma once

#include <cstdint>
#include <string>

// What stands in "/media" beside the mounted volumes: the links to them, and leftovers.

struct HalVolumeInfo;

inline constexpr const char* kMediaDirectory = "/media";
inline constexpr const char* kMediaPrefix = "/media/";

/// The name of a volume's link: "USB Memory Card B1" for a stick mounted at "/media/sdb1"; for a
/// card "Memory Card" on a unit whose MMC host index is 1, "Memory Card - HOST" where it is 2.
/// Empty when the volume gets no link.
[[nodiscard]] std::string MediaLinkName(const std::string& busType, const std::string& mountPoint,
                                        int32_t mmcHost, int mmcHostIndex);

/// What the link leads to, relative to "/media": the mount point without as many characters as
/// "/media/" has, whatever they are. Empty for a shorter one.
[[nodiscard]] std::string MediaLinkTarget(const std::string& mountPoint);

/// Makes the link of a volume that is mounted and sets its `LinkPath`, which stays empty, with two
/// error lines, when there can be none.
void CreateMediaLink(HalVolumeInfo& info, int mmcHostIndex);

/// Deletes the link of a volume, if it has one. A link that somebody else took away is as good as
/// deleted.
void RemoveMediaLink(const HalVolumeInfo& info);

/// True when a mount-point name stands for an entry of "/media" itself: it is not empty and does
/// not lead elsewhere.
[[nodiscard]] bool IsMediaEntryName(const std::string& name);

/// True when something stands at "/media/" + `name` that no file system is mounted on. A name that
/// stands for no entry of "/media" never is a leftover, for what it names would be deleted.
[[nodiscard]] bool IsLeftover(const std::string& name);

/// Deletes the symbolic links directly inside a directory whose targets do not exist. Failures are
/// passed over.
void RemoveDanglingLinks(const std::string& directory);
