#pragma once

#include <filesystem>

#include "support/NfsRootSetting.h"
#include "support/TemporaryDirectory.h"

/// Makes the test work in a directory of its own, in which "./mnt/" is the NFS root: its two
/// slashes are those that a mount path keeps, so that every share is mounted below it.
class tOwnNfsRoot {
 public:
  tOwnNfsRoot() : m_Before(std::filesystem::current_path()) {
    m_Directory.MakeDirectory("mnt");
    std::filesystem::current_path(m_Directory.Path());
  }
  ~tOwnNfsRoot() { std::filesystem::current_path(m_Before); }
  tOwnNfsRoot(const tOwnNfsRoot&) = delete;
  tOwnNfsRoot& operator=(const tOwnNfsRoot&) = delete;

 private:
  const std::filesystem::path m_Before;
  const tTemporaryDirectory m_Directory;
  const tNfsRootSetting m_Root{"./mnt/"};
};
