#include "volumes/MediaLinks.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "storage/HalVolumeInfo.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;

namespace {

TEST(MediaLinkName, OfAStickComesFromItsMountPoint) {
  const struct {
    const char* mountPoint;
    const char* name;
  } cases[] = {
      {"/media/sda1", "USB Memory Card A1"},
      {"/media/sdb1", "USB Memory Card B1"},
      {"/media/sdb", "USB Memory Card B"},
      {"/media/sdaB12c", "USB Memory Card AB12C"},
      {"/media/sd", "USB Memory Card "},
      {"/media/sda1/sdb2", "USB Memory Card B2"},
      {"/media/sda1/x", "USB Memory Card A1/X"},
      {"/sda1", "USB Memory Card A1"},
      {"/media/sd\xC3\xA4", "USB Memory Card \xC3\xA4"},
      {"/media/sda-charts_\xC3\xA9", "USB Memory Card A-CHARTS_\xC3\xA9"},
      {"/media/sdab12", "USB Memory Card AB12"},
      {"/media/sdx/sdc3", "USB Memory Card C3"},
      {"/mnt/sda1", "USB Memory Card A1"},
      {"/sdq", "USB Memory Card Q"},
      {"/mnt/hd5", "USB Memory Card"},
      {"/media/mysda1", "USB Memory Card"},
      {"/media/CHARTS", "USB Memory Card"},
      {"/media/disk", "USB Memory Card"},
      {"/media/SDA1", "USB Memory Card"},
      {"sda1", "USB Memory Card"},
      {"/s", "USB Memory Card"},
      {"", "USB Memory Card"},
  };
  for (const auto& [mountPoint, name] : cases) {
    for (const int mmcHostIndex : {0, 1, 2}) {
      EXPECT_EQ(MediaLinkName("usb", mountPoint, 1, mmcHostIndex), name) << mountPoint;
    }
  }
}

TEST(MediaLinkName, OfACardDependsOnTheNumberOfHosts) {
  const struct {
    int mmcHostIndex;
    int32_t mmcHost;
    const char* name;
  } cases[] = {
      {0, 0, ""}, {1, 0, "Memory Card"},     {1, 7, "Memory Card"},       {2, 0, "Memory Card - 0"},
      {3, 0, ""}, {2, 2, "Memory Card - 2"}, {2, -1, "Memory Card - -1"}, {-1, 0, ""},
  };
  for (const auto& [mmcHostIndex, mmcHost, name] : cases) {
    EXPECT_EQ(MediaLinkName("mmc", "/media/sda1", mmcHost, mmcHostIndex), name)
        << mmcHostIndex << " " << mmcHost;
  }
}

TEST(MediaLinkName, IsEmptyOnAnyOtherBus) {
  for (const char* bus : {"", "scsi", "USB", "usb ", "usbmmc", "MMC"}) {
    EXPECT_EQ(MediaLinkName(bus, "/media/sda1", 1, 1), "") << bus;
  }
}

TEST(MediaLinkTarget, IsTheMountPointWithoutItsFirstSevenCharacters) {
  const struct {
    const char* mountPoint;
    const char* target;
  } cases[] = {
      {"/media/sda1", "sda1"},
      {"/media/", ""},
      {"/media", ""},
      {"/m", ""},
      {"", ""},
      {"1234567", ""},
      {"12345678", "8"},
      {"/mnt/usb/x", "b/x"},
      {"/mnt/sda1", "a1"},
      {"/mnt/hd5", "5"},
      {"/mnt/hd", ""},
      {"/sdq", ""},
      {"/", ""},
      {"/media/sdx/sdc3", "sdx/sdc3"},
      {"/media//x", "/x"},
  };
  for (const auto& [mountPoint, target] : cases) {
    EXPECT_EQ(MediaLinkTarget(mountPoint), target) << mountPoint;
  }
}

TEST(MediaEntryName, DoesNotLeadOutOfItsDirectory) {
  for (const char* name : {"sda1", "mmcblk0p1", "...", " ", ".hidden", "my stick"}) {
    EXPECT_TRUE(IsMediaEntryName(name)) << name;
  }
  for (const char* name : {"", ".", "..", "/", "a/b", "../etc", "sda1/", "/sda1"}) {
    EXPECT_FALSE(IsMediaEntryName(name)) << name;
    EXPECT_FALSE(IsLeftover(name)) << name;
  }
}

TEST(MediaLink, IsRefusedWhenItsNameHasASlash) {
  HalVolumeInfo info;
  info.BusType = "usb";
  info.MountPoint = "/media/sda1/charts";
  const tCapturedLog log;
  CreateMediaLink(info, 1);
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogError,
                                   "symlink refused: /media/USB Memory Card A1/CHARTS -> "
                                   "sda1/charts"},
                          tLogLine{kLogError,
                                   "symlink error: a link whose name has a slash would not stand "
                                   "in /media itself"}));
  EXPECT_EQ(info.LinkPath, "");
}

TEST(MediaLink, IsDeletedByItsRecordedPath) {
  const tTemporaryDirectory directory;
  HalVolumeInfo info;
  info.LinkPath = directory.Link("link", "sda1");
  const HalVolumeInfo without;
  const tCapturedLog log;
  RemoveMediaLink(without);
  EXPECT_TRUE(directory.Holds("link"));
  RemoveMediaLink(info);
  EXPECT_FALSE(directory.Holds("link"));
  RemoveMediaLink(info);
  EXPECT_THAT(log.Lines(), testing::IsEmpty()) << "a link that is gone is no failure";
}

TEST(RemoveDanglingLinks, DeletesTheLinksOfADirectoryThatLeadNowhere) {
  const tTemporaryDirectory directory;
  directory.Link("relative", "gone");
  directory.Link("absolute", directory.Path("gone"));
  directory.Link("USB Memory Card A1", "sda1");
  directory.Link("chain", "relative");
  RemoveDanglingLinks(directory.Path());
  for (const char* name : {"relative", "absolute", "USB Memory Card A1", "chain"}) {
    EXPECT_FALSE(directory.Holds(name)) << name;
  }
}

TEST(RemoveDanglingLinks, KeepsEverythingElse) {
  const tTemporaryDirectory directory;
  directory.MakeDirectory("sda1/inner");
  directory.Write("file", "x");
  ASSERT_EQ(mkfifo(directory.Path("fifo").c_str(), 0600), 0);
  directory.Link("to-directory", "sda1");
  directory.Link("to-file", directory.Path("file"));
  directory.Link("to-link", "to-directory");
  directory.Link("to-itself", "to-itself");
  directory.Link("through-a-file", "file/below");
  directory.Link("sda1/dangling", "gone");
  RemoveDanglingLinks(directory.Path());
  for (const char* name : {"sda1/inner", "file", "fifo", "to-directory", "to-file", "to-link",
                           "to-itself", "through-a-file", "sda1/dangling"}) {
    EXPECT_TRUE(directory.Holds(name)) << name;
  }
}

TEST(RemoveDanglingLinks, OfAMissingDirectoryDoesNothing) {
  const tTemporaryDirectory directory;
  RemoveDanglingLinks(directory.Path("missing"));
  RemoveDanglingLinks(directory.Write("file", "x"));
  RemoveDanglingLinks("");
  EXPECT_TRUE(directory.Holds("file"));
}

}  // namespace
