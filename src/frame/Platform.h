#pragma once

#include <string>

// Two facts about the unit's hardware, read once at start-up.

inline constexpr const char* kMmcHostDirectory = "/sys/class/mmc_host";
inline constexpr const char* kPlatformFamilyFile = "/proc/kelmar_platform/family_id";

/// The number of entries of `directory` whose names begin with "mmc", less one; never below 0, and
/// 0 when the directory cannot be opened. Two hosts, mmc0 and mmc1, give 1.
[[nodiscard]] int MmcHostIndex(const std::string& directory);

/// The second word of the file's first line ("3 hawk" gives "hawk"), if the line begins with an
/// integer. Empty in every other case.
[[nodiscard]] std::string PlatformFamily(const std::string& file);
