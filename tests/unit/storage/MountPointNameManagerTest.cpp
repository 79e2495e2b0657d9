#include "storage/MountPointNameManager.h"

#include <gtest/gtest.h>

namespace {

TEST(MountPointName, IsTheBlockDeviceFromItsSixthCharacterOn) {
  const struct {
    std::string blockDevice;
    std::string name;
  } cases[] = {
      {"/dev/sda1", "sda1"},
      {"/dev/mmcblk0p1", "mmcblk0p1"},
      {"/dev/sdb", "sdb"},
      {"/dev/mapper/x", "mapper/x"},
      {"/dev/block/8:1", "block/8:1"},
      {"/dev/a b", "a b"},
      {"/dev/", ""},
      {"/dev/.", "."},
      {"/dev/..", ".."},
      {"/dev/../etc", "../etc"},
      {"/dev//dev/sda1", "/dev/sda1"},
      {"/tmp/dev/sda1", "dev/sda1"},
      {"x/dev/", "/"},
      {"x/dev/sda1", "/sda1"},
      {"//dev/sda1", "/sda1"},
      {"/dev/" + std::string(4091, 'n'), std::string(4091, 'n')},
  };
  for (const auto& [blockDevice, expected] : cases) {
    CMountPointNameManager names;
    std::string name = "before";
    EXPECT_TRUE(names.GetNextMountPointName(name, blockDevice)) << blockDevice;
    EXPECT_EQ(name, expected) << blockDevice;
  }
}

TEST(MountPointName, IsNotGivenToWhatIsNoDeviceNode) {
  for (const char* blockDevice :
       {"", "sda1", "/dev", "dev/sda1", "/DEV/sda1", "/Dev/sda1", "/de v/sda1", "/devsda1"}) {
    CMountPointNameManager names;
    std::string name = "before";
    EXPECT_FALSE(names.GetNextMountPointName(name, blockDevice)) << blockDevice;
    EXPECT_EQ(name, "before") << blockDevice;
  }
}

TEST(MountPointName, IsTheSameEachTime) {
  CMountPointNameManager names;
  std::string first;
  std::string second;
  ASSERT_TRUE(names.GetNextMountPointName(first, "/dev/sda1"));
  ASSERT_TRUE(names.GetNextMountPointName(second, "/dev/sda1"));
  EXPECT_EQ(first, second);
}

}  // namespace
