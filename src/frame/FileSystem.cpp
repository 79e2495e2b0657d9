#include "frame/FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "frame/Log.h"
#include "frame/SystemCall.h"
#include "frame/Text.h"
#include "frame/TreeRemoval.h"

namespace {

constexpr int kTreeWalkDescriptors = 16;
constexpr size_t kFirstLineBytes = 511;
constexpr const char* kWhiteSpace = " \t\n\v\f\r";

struct tDirectoryCloser {
  void operator()(DIR* stream) const { closedir(stream); }
};

int RemoveTreeEntry(const char* path, const struct stat*, int, FTW*) {
  const int result = remove(path);
  if (result != 0) Log("Failed to remove " + Printable(path), kLogWarning);
  return result;
}

}  // namespace

int RemoveDirectory(const std::string& path, bool recursive, tLinkPolicy links) {
  if (recursive && links == tLinkPolicy::kDoNotFollow) return RemoveTree(path);
  if (recursive) {
    return nftw(path.c_str(), RemoveTreeEntry, kTreeWalkDescriptors, FTW_DEPTH | FTW_MOUNT);
  }
  if (rmdir(path.c_str()) == 0 || errno == ENOENT) return 0;
  const std::string reason = strerror(errno);
  Log("Failed to remove " + Printable(path) + ": " + reason, kLogWarning);
  return -1;
}

std::vector<std::string> DirectoryEntries(const std::string& directory) {
  return DirectoryEntries(tFileDescriptor(RetryInterrupted(
      [&] { return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); })));
}

std::vector<std::string> DirectoryEntries(tFileDescriptor directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, tDirectoryCloser> stream(fdopendir(directory.Get()));
  if (!stream) return names;
  directory.Release();
  while (const dirent* entry = readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

bool IsSameDevice(const std::string& left, const std::string& right) {
  struct stat leftStatus {};
  struct stat rightStatus {};
  if (stat(left.c_str(), &leftStatus) != 0 || stat(right.c_str(), &rightStatus) != 0) return false;
  return major(leftStatus.st_dev) == major(rightStatus.st_dev) &&
         minor(leftStatus.st_dev) == minor(rightStatus.st_dev);
}

time_t GetFileModifiedTime(const std::string& path) {
  struct stat status {};
  if (path.empty() || stat(path.c_str(), &status) != 0) return 0;
  return status.st_mtime;
}

std::optional<std::string> ReadFile(const std::string& path, size_t maxBytes, int* error) {
  if (error != nullptr) *error = 0;
  const tFileDescriptor file(RetryInterrupted(
      [&] { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
  if (!file.IsOpen()) {
    if (error != nullptr) *error = errno;
    return std::nullopt;
  }
  std::string text;
  char block[4096];
  while (text.size() < maxBytes) {
    const size_t wanted = std::min(sizeof block, maxBytes - text.size());
    const ssize_t count = RetryInterrupted([&] { return read(file.Get(), block, wanted); });
    if (count < 0 && error != nullptr) *error = errno;
    if (count <= 0) break;
    text.append(block, static_cast<size_t>(count));
  }
  return text;
}

std::string ReadFirstLine(const std::string& path, int* error) {
  std::string line = ReadFile(path, kFirstLineBytes, error).value_or("");
  line.resize(std::min(line.find('\n'), line.size()));
  line.resize(strlen(line.c_str()));
  const size_t first = line.find_first_not_of(kWhiteSpace);
  if (first == std::string::npos) return "";
  return line.substr(first, line.find_last_not_of(kWhiteSpace) - first + 1);
}
