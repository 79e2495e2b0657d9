#include "storage/RemoteMountPath.h"

#include "frame/NfsRoot.h"
#include "frame/Settings.h"

std::string MakeRemoteMountPath(const std::string& source) {
  constexpr int kKeptSlashes = 2;
  std::string path = (gNfsRoot.empty() ? kDefaultNfsRoot : gNfsRoot) + source;
  int slashes = 0;
  for (char& character : path) {
    if (character == '/' && ++slashes > kKeptSlashes) character = '-';
  }
  return path;
}
