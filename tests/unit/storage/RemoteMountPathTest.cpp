#include "storage/RemoteMountPath.h"

#include <gtest/gtest.h>

#include "support/NfsRootSetting.h"

namespace {

TEST(RemoteMountPath, KeepsTheFirstTwoSlashesOfRootAndSource) {
  const struct {
    const char* root;
    const char* source;
    const char* path;
  } cases[] = {
      {"", "192.168.1.20:/media/sda1", "/mnt/192.168.1.20:-media-sda1"},
      {"", "share", "/mnt/share"},
      {"", "", "/mnt/"},
      {"", "/", "/mnt/-"},
      {"", "h:/../../etc", "/mnt/h:-..-..-etc"},
      {"", "..", "/mnt/.."},
      {"/srv/nfs/", "192.168.1.20:/media/sda1", "/srv/nfs-192.168.1.20:-media-sda1"},
      {"/a/b/c/", "h:/x", "/a/b-c-h:-x"},
      {"/", "h:/x/y", "/h:/x-y"},
      {"shares/", "h:/x/y", "shares/h:/x-y"},
  };
  for (const auto& [root, source, path] : cases) {
    const tNfsRootSetting setting(root);
    EXPECT_EQ(MakeRemoteMountPath(source), path) << root << " " << source;
  }
}

}  // namespace
