#include "hal/kernel/MountCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using halkernel::MountWords;
using halkernel::RemountWords;
using halkernel::TypeToMount;
using testing::ElementsAre;

TEST(MountCommand, NtfsIsMountedByTheKernelIfItCan) {
  const struct {
    const char* fstype;
    const char* filesystems;
    bool hasHelper;
    const char* mounted;
  } kTable[] = {
      {"vfat", "\tntfs3\n", true, "vfat"},
      {"ntfs", "nodev\tproc\n\tvfat\n\tntfs3\n", true, "ntfs3"},
      {"ntfs", "nodev\tproc\n\tvfat\n\tntfs3", false, "ntfs3"},
      {"ntfs", "nodev\tproc\n\tvfat\n", true, "ntfs"},
      {"ntfs", "\tntfs\n\tntfs3x\n", true, "ntfs"},
      {"ntfs", "nodev\tproc\n", false, "ntfs3"},
      {"ntfs", "", true, "ntfs"},
      {"ntfs3", "", true, "ntfs3"},
  };
  for (const auto& row : kTable) {
    EXPECT_EQ(TypeToMount(row.fstype, row.filesystems, row.hasHelper), row.mounted)
        << row.fstype << " " << row.filesystems;
  }
}

hal::MountRequest Request(std::vector<std::string> options) {
  hal::MountRequest request;
  request.options = std::move(options);
  return request;
}

TEST(MountCommand, NeitherSetUidNorDevicesAreEverTaken) {
  EXPECT_THAT(MountWords(Request({"utf8", "umask=0"}), "vfat", false, "/dev/sda1", "/media/sda1"),
              ElementsAre("mount", "-t", "vfat", "-o", "nosuid,nodev,utf8,umask=0", "--",
                          "/dev/sda1", "/media/sda1"));
}

TEST(MountCommand, AReadOnlyMediumIsMountedSoWhateverIsAskedFor) {
  const struct {
    std::vector<std::string> options;
    const char* given;
  } kTable[] = {
      {{}, "nosuid,nodev,ro"},
      {{"ro"}, "nosuid,nodev,ro"},
      {{"rw"}, "nosuid,nodev,ro"},
      {{"utf8", "rw", "sync"}, "nosuid,nodev,ro,utf8,sync"},
  };
  for (const auto& row : kTable) {
    EXPECT_EQ(MountWords(Request(row.options), "vfat", true, "/dev/sda1", "/media/a")[4],
              row.given);
  }
}

TEST(MountCommand, ARemountChangesNothingElse) {
  EXPECT_THAT(RemountWords(true, "/media/a"),
              ElementsAre("mount", "-o", "remount,nosuid,nodev,ro", "--", "/media/a"));
  EXPECT_THAT(RemountWords(false, "/media/a"),
              ElementsAre("mount", "-o", "remount,nosuid,nodev,rw", "--", "/media/a"));
}

}  // namespace
