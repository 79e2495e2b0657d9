#include "storage/SlotRebuild.h"

#include <gmock/gmock.h>

#include "storage/tHalManager.h"
#include "support/CapturedLog.h"

using testing::ElementsAre;

namespace {

TEST(UeventFiles, BelongToTheCardOfEachSlot) {
  const struct {
    const char* device;
    const char* disk;
    const char* partition;
  } cases[] = {
      {"/dev/mmcblk0", "/sys/dev/block/179:0/uevent", "/sys/dev/block/179:1/uevent"},
      {"/dev/mmcblk1", "/sys/dev/block/179:8/uevent", "/sys/dev/block/179:9/uevent"},
      {"/dev/mmcblk2", "/sys/dev/block/179:16/uevent", "/sys/dev/block/179:17/uevent"},
  };
  for (const auto& [device, disk, partition] : cases) {
    const tUeventFiles files = UeventFilesOf(device);
    EXPECT_EQ(files.disk, disk);
    EXPECT_EQ(files.partition, partition);
    EXPECT_TRUE(files.known);
  }
}

TEST(UeventFiles, OfAnyOtherDeviceAreHarmless) {
  for (const char* device : {"", "/dev/mmcblk3", "/dev/mmcblk0p1", "/dev/mmcblk00", "/dev/mmcblk",
                             "mmcblk0", "/dev/sda", "/dev/MMCBLK0", " /dev/mmcblk0"}) {
    const tUeventFiles files = UeventFilesOf(device);
    EXPECT_EQ(files.disk, "/dev/null") << device;
    EXPECT_EQ(files.partition, "/dev/null") << device;
    EXPECT_FALSE(files.known) << device;
  }
}

TEST(RebuildCardReaderTree, ReportsAnUnknownDeviceAndItsSteps) {
  const tCapturedLog log;
  tHalManager::_RebuildCardReaderTree("/dev/sda");
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogDebug,
                                   "GetVolumeInfo() WEIRD:  Not mmcblk0, mmcblk1 or mmcblk2.  "
                                   "Please report this."},
                          tLogLine{kLogDebug, "GetVolumeInfo() Tearing down device tree."},
                          tLogLine{kLogDebug, "GetVolumeInfo() Rebuilding device tree."}));
}

}  // namespace
