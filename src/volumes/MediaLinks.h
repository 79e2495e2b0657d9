#pragma once

#include <cstdint>
#include <string>

// The names and targets of the links under "/media", and the clean-up of those that lead nowhere.

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

/// Deletes the symbolic links directly inside a directory whose targets do not exist. Failures are
/// passed over.
void RemoveDanglingLinks(const std::string& directory);
