// Holds one directory open, the one that it works in, and remembers of those above it which ones
// they are and which of their entries are left. It steps down to an entry and up to ".." only where
// that leads to another directory of the same mount, and on the way up to the one it came from.

#include "frame/TreeRemoval.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "frame/FileDescriptor.h"
#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/SystemCall.h"
#include "frame/Text.h"

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr size_t kDescriptorTextBytes = 512;

/// Which directory an open one is.
struct tIdentity {
  explicit tIdentity(const tFileDescriptor& directory) {
    struct stat status {};
    if (fstat(directory.Get(), &status) != 0) return;
    device = status.st_dev;
    inode = status.st_ino;
  }
  bool operator==(const tIdentity&) const = default;

  dev_t device = 0;
  ino_t inode = 0;
};

/// The number of the mount that an open file lies on; -1 if the kernel does not say.
int MountId(const tFileDescriptor& file) {
  const std::string text =
      ReadFile("/proc/self/fdinfo/" + std::to_string(file.Get()), kDescriptorTextBytes)
          .value_or("");
  const size_t line = text.find("mnt_id:");
  int id = -1;
  if (line != std::string::npos) sscanf(text.c_str() + line, "mnt_id: %d", &id);
  return id;
}

/// Opens a directory by its name in another. Fails with EXDEV where something is mounted.
tFileDescriptor OpenOnSameMount(const tFileDescriptor& from, const char* name) {
  open_how how{};
  how.flags = kDirectoryFlags;
  how.resolve = RESOLVE_NO_XDEV;
  tFileDescriptor directory(static_cast<int>(
      RetryInterrupted([&] { return syscall(SYS_openat2, from.Get(), name, &how, sizeof how); })));
  if (directory.IsOpen() || (errno != ENOSYS && errno != EPERM)) return directory;
  // A kernel without the call, or a filter that does not know it.
  directory.Reset(RetryInterrupted([&] { return openat(from.Get(), name, kDirectoryFlags); }));
  if (!directory.IsOpen()) return directory;
  if (const int mount = MountId(directory); mount < 0 || mount != MountId(from)) {
    directory.Reset();
    errno = EXDEV;
  }
  return directory;
}

class tTreeRemoval {
 public:
  int Run(const std::string& path);

 private:
  struct tLevel {
    std::string name;  ///< in the level above; of the first one the path, with its slash
    tIdentity identity;
    std::vector<std::string> left;  ///< entries that are still to be removed
  };

  void _Enter(tFileDescriptor directory, const std::string& name, std::vector<std::string> entries);
  /// Removes an entry, or steps into it. False on failure.
  [[nodiscard]] bool _Remove(const std::string& name);
  /// Steps up and removes the directory that was left. False on failure.
  [[nodiscard]] bool _Leave();
  bool _Fail(const std::string& name);

  tFileDescriptor m_Here;
  std::vector<tLevel> m_Levels;  ///< from the directory above the tree down to the open one
};

int tTreeRemoval::Run(const std::string& path) {
  const size_t name = path.rfind('/') + 1;
  const std::string above = path.substr(0, name);
  tFileDescriptor directory(RetryInterrupted([&] {
    return open(above.empty() ? "." : above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }));
  if (!directory.IsOpen()) return -1;
  _Enter(std::move(directory), above, {path.substr(name)});
  for (;;) {
    std::vector<std::string>& left = m_Levels.back().left;
    if (left.empty() && m_Levels.size() == 1) return 0;
    if (left.empty()) {
      if (!_Leave()) return -1;
      continue;
    }
    const std::string next = std::move(left.back());
    left.pop_back();
    if (!_Remove(next)) return -1;
  }
}

void tTreeRemoval::_Enter(tFileDescriptor directory, const std::string& name,
                          std::vector<std::string> entries) {
  m_Here = std::move(directory);
  m_Levels.push_back({name, tIdentity(m_Here), std::move(entries)});
}

bool tTreeRemoval::_Remove(const std::string& name) {
  const bool isTop = m_Levels.size() == 1;
  if (unlinkat(m_Here.Get(), name.c_str(), 0) == 0) return true;
  if (errno == EBUSY && !isTop) return true;  // a file that another is mounted on
  tFileDescriptor inner = OpenOnSameMount(m_Here, name.c_str());
  if (inner.IsOpen()) {
    std::vector<std::string> entries =
        DirectoryEntries(tFileDescriptor(fcntl(inner.Get(), F_DUPFD_CLOEXEC, 0)));
    _Enter(std::move(inner), name, std::move(entries));
    return true;
  }
  if (errno == ENOENT) return !isTop;
  if (errno == EXDEV && !isTop) return true;
  return _Fail(name);
}

bool tTreeRemoval::_Leave() {
  const std::string name = std::move(m_Levels.back().name);
  m_Levels.pop_back();
  m_Here = OpenOnSameMount(m_Here, "..");
  // Somebody may have moved the directory to another place, whose entries are none of this tree.
  const bool isBack = m_Here.IsOpen() && tIdentity(m_Here) == m_Levels.back().identity;
  return (isBack && unlinkat(m_Here.Get(), name.c_str(), AT_REMOVEDIR) == 0) || _Fail(name);
}

bool tTreeRemoval::_Fail(const std::string& name) {
  std::string path = m_Levels.front().name;
  for (size_t level = 1; level < m_Levels.size(); ++level) path += m_Levels[level].name + "/";
  Log("Failed to remove " + Printable(path + name), kLogWarning);
  return false;
}

}  // namespace

int RemoveTree(const std::string& path) {
  return tTreeRemoval().Run(path);
}
