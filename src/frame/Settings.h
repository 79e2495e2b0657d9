#pragma once

#include <cstdint>
#include <string>

// Process-wide settings from the command line. Written once by main before any worker thread
// exists, only read afterwards, so no lock guards them.

/// TCP port of the display application on 127.0.0.1.
inline int32_t gClientPort = 8080;

/// Directory under which other units' shares are mounted; ends in "/" when set. Empty: "/mnt/".
inline std::string gNfsRoot;

/// Extra mount options for file systems whose type begins with "vfat", exactly as they stand on the
/// command line (the text belongs to it); null when the option is absent.
inline const char* gVfatMountOpts = nullptr;
