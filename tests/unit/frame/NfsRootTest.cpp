#include "frame/NfsRoot.h"

#include <gtest/gtest.h>

#include "support/NfsRootSetting.h"

namespace {

TEST(MapNfsRootPath, WithoutARootReturnsEveryPathUnchanged) {
  const tNfsRootSetting root("");
  for (const char* path : {"", "/", "/mnt/", "/mnt/usb1", "/media/sda1", "/srv/nfs/usb1"}) {
    EXPECT_EQ(MapNfsRootPath(path), path);
  }
}

TEST(MapNfsRootPath, PutsPathsUnderTheRootUnderMnt) {
  const struct {
    const char* path;
    const char* mapped;
  } cases[] = {
      {"/srv/nfs/usb1", "/mnt/usb1"},
      {"/srv/nfs/a/b", "/mnt/a/b"},
      {"/srv/nfs/", "/mnt/"},
      {"/srv/nfs//x", "/mnt//x"},
      {"/srv/nfs", "/srv/nfs"},
      {"/srv/nfs-192.168.1.20:-media-sda1", "/srv/nfs-192.168.1.20:-media-sda1"},
      {"/srv/nfsx/usb1", "/srv/nfsx/usb1"},
      {"/media/srv/nfs/usb1", "/media/srv/nfs/usb1"},
      {"/SRV/NFS/usb1", "/SRV/NFS/usb1"},
      {"/media/sda1", "/media/sda1"},
      {"", ""},
  };
  const tNfsRootSetting root("/srv/nfs/");
  for (const auto& [path, mapped] : cases) EXPECT_EQ(MapNfsRootPath(path), mapped) << path;
}

TEST(MapNfsRootPath, MapsWhatIsMountedInMediaWhenThatIsTheRoot) {
  const tNfsRootSetting root("/media/");
  EXPECT_EQ(MapNfsRootPath("/media/sda1"), "/mnt/sda1");
  EXPECT_EQ(MapNfsRootPath("/mnt/sda1"), "/mnt/sda1");
}

TEST(MapNfsRootPath, MapsEveryAbsolutePathWhenTheRootIsTheRootDirectory) {
  const tNfsRootSetting root("/");
  EXPECT_EQ(MapNfsRootPath("/media/sda1"), "/mnt/media/sda1");
}

}  // namespace
