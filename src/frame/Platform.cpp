#include "frame/Platform.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "frame/FileSystem.h"

namespace {

constexpr size_t kFamilyLineBytes = 511;

struct tDirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

int MmcHostIndex(const std::string& directory) {
  const std::unique_ptr<DIR, tDirectoryCloser> entries(opendir(directory.c_str()));
  if (!entries) return 0;
  int count = 0;
  while (const dirent* entry = readdir(entries.get())) {
    if (std::string_view(entry->d_name).starts_with("mmc")) ++count;
  }
  return std::max(count - 1, 0);
}

std::string PlatformFamily(const std::string& file) {
  std::string line = ReadFile(file, kFamilyLineBytes).value_or("");
  line.resize(std::min(line.find('\n'), line.size()));
  char family[kFamilyLineBytes + 1];
  return sscanf(line.c_str(), "%*d %511s", family) == 1 ? family : "";
}
