#pragma once

#include <string>

/// Maps a path under `gNfsRoot` to the same path under "/mnt/", which is how the display
/// application sees it. Any other path, and every path while `gNfsRoot` is empty, comes back
/// unchanged. Any thread; does not block.
[[nodiscard]] std::string MapNfsRootPath(const std::string& path);
