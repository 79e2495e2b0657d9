#pragma once

#include <string>

#include "frame/Settings.h"

/// Sets `gNfsRoot` for the life of a block.
class tNfsRootSetting {
 public:
  explicit tNfsRootSetting(std::string root) { gNfsRoot = std::move(root); }
  ~tNfsRootSetting() { gNfsRoot.clear(); }
  tNfsRootSetting(const tNfsRootSetting&) = delete;
  tNfsRootSetting& operator=(const tNfsRootSetting&) = delete;
};
