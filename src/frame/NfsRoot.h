#pragma once

#include <string>

/// Where shares are mounted when `gNfsRoot` is empty, and where the display application sees them.
inline constexpr const char* kDefaultNfsRoot = "/mnt/";

/// Maps a path under `gNfsRoot` to the same path under "/mnt/", which is how the display
/// application sees it. Any other path, and every path while `gNfsRoot` is empty, comes back
/// unchanged. Any thread; does not block.
[[nodiscard]] std::string MapNfsRootPath(const std::string& path);
