#include "frame/NfsRoot.h"

#include "frame/Settings.h"

std::string MapNfsRootPath(const std::string& path) {
  if (gNfsRoot.empty() || !path.starts_with(gNfsRoot)) return path;
  return kDefaultNfsRoot + path.substr(gNfsRoot.size());
}
