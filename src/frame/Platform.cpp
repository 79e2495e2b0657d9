#include "frame/Platform.h"

#include <algorithm>
#include <cstdio>

#include "frame/FileSystem.h"

namespace {

constexpr size_t kFamilyLineBytes = 511;

}  // namespace

int MmcHostIndex(const std::string& directory) {
  const std::vector<std::string> names = DirectoryEntries(directory);
  const auto hosts = std::count_if(names.begin(), names.end(),
                                   [](const std::string& name) { return name.starts_with("mmc"); });
  return std::max(static_cast<int>(hosts) - 1, 0);
}

std::string PlatformFamily(const std::string& file) {
  std::string line = ReadFile(file, kFamilyLineBytes).value_or("");
  line.resize(std::min(line.find('\n'), line.size()));
  char family[kFamilyLineBytes + 1];
  return sscanf(line.c_str(), "%*d %511s", family) == 1 ? family : "";
}
