#include "hal/kernel/MountTable.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/TemporaryDirectory.h"

namespace halkernel {
namespace {

std::vector<MountEntry> Read(std::string text) {
  std::FILE* file = fmemopen(text.data(), text.size(), "r");
  const auto entries = ReadMountInfo(file);
  std::fclose(file);
  return entries.value_or(std::vector<MountEntry>());
}

MountEntry ReadOne(const std::string& line) {
  const std::vector<MountEntry> entries = Read(line + "\n");
  EXPECT_EQ(entries.size(), 1u) << line;
  return entries.empty() ? MountEntry() : entries[0];
}

TEST(ReadMountInfo, DeviceSourceAndPlace) {
  const MountEntry entry =
      ReadOne("98 30 8:1 / /media/sda1 rw,nosuid,nodev shared:40 - vfat /dev/sda1 rw,fmask=0022");
  EXPECT_EQ(entry.number, (DeviceNumber{8, 1}));
  EXPECT_EQ(entry.source, "/dev/sda1");
  EXPECT_EQ(entry.target, "/media/sda1");
  EXPECT_FALSE(entry.readOnly);
  EXPECT_FALSE(entry.namedBySource);
}

TEST(ReadMountInfo, ReadOnlyByTheMountsOwnOptionsTheSuperblocksOrAfterAnError) {
  const auto readOnly = [](const std::string& own, const std::string& super) {
    return ReadOne("98 30 8:1 / /m " + own + " - ext4 /dev/sda1 " + super).readOnly;
  };
  EXPECT_FALSE(readOnly("rw", "rw"));
  EXPECT_TRUE(readOnly("ro", "rw"));
  EXPECT_TRUE(readOnly("rw", "ro"));
  EXPECT_TRUE(readOnly("rw", "rw,emergency_ro"));
  EXPECT_TRUE(readOnly("rw,noatime", "ro,errors=remount-ro"));
  EXPECT_FALSE(readOnly("rw,noatime", "rw,errors=remount-ro"));
  EXPECT_FALSE(readOnly("rw", "rw,iocharset=ro"));
}

TEST(ReadMountInfo, EscapesAreDecoded) {
  const MountEntry entry =
      ReadOne("98 30 8:1 / /media/a\\040b\\011c\\134d rw - vfat /dev/disk\\0401 rw");
  EXPECT_EQ(entry.target, "/media/a b\tc\\d");
  EXPECT_EQ(entry.source, "/dev/disk 1");
}

TEST(ReadMountInfo, TheSourceCountsOnlyWithoutADeviceNumberAndNotWithFuse) {
  EXPECT_TRUE(ReadOne("98 30 0:44 / /m rw - btrfs /dev/sda1 rw").namedBySource);
  EXPECT_TRUE(ReadOne("98 30 0:44 / /m rw - tmpfs /dev/sda1 rw").namedBySource);
  EXPECT_FALSE(ReadOne("98 30 0:44 / /m rw - fuse /dev/sda1 rw").namedBySource);
  EXPECT_FALSE(ReadOne("98 30 0:44 / /m rw - fuse.sshfs /dev/sda1 rw").namedBySource);
  EXPECT_FALSE(ReadOne("98 30 8:1 / /m rw - fuseblk /dev/sda1 rw").namedBySource);
}

TEST(ReadMountInfo, LinesThatAreNoneAreLeftOut) {
  const std::string good = "98 30 8:1 / /media/sda1 rw - vfat /dev/sda1 rw\n";
  EXPECT_EQ(Read(good + "98 30 garbage\n" + good).size(), 2u);
  EXPECT_EQ(Read(good + "\n\n" + good).size(), 2u);
}

TEST(ReadMountInfo, EveryPrefixOfALineIsSurvived) {
  const std::string line = "98 30 8:1 / /media/a\\040b rw shared:1 - vfat /dev/sda1 rw,ro\n";
  for (std::size_t length = 1; length < line.size(); ++length) {
    EXPECT_LE(Read(line.substr(0, length)).size(), 1u);
  }
}

TEST(ReadSwaps, NodesOfAllAreas) {
  const tTemporaryDirectory directory;
  const std::string path =
      directory.Write("swaps",
                      "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                      "/dev/sda2                               partition\t1048572\t\t0\t\t-2\n"
                      "/swap\\040file                           file\t\t524284\t\t0\t\t-3\n");
  EXPECT_EQ(ReadSwaps(path), (std::vector<std::string>{"/dev/sda2", "/swap file"}));
  EXPECT_TRUE(ReadSwaps(directory.Path("none")).empty());
}

// ---- The index

TEST(MountIndex, FirstEntryByNumberOrSourceInTheOrderOfTheTable) {
  const MountEntry byNumber{{8, 1}, "/dev/root", "/a", false, false};
  const MountEntry bySource{{0, 40}, "/dev/sda1", "/b", false, true};
  const MountEntry untrusted{{0, 41}, "/dev/sda1", "/c", false, false};
  const auto first = [](const Mounts& mounts) {
    const MountIndex index(mounts);
    const MountEntry* entry = index.First({8, 1}, "/dev/sda1");
    return entry != nullptr ? entry->target : std::string();
  };
  EXPECT_EQ(first({{untrusted, byNumber, bySource}, {}}), "/a");
  EXPECT_EQ(first({{untrusted, bySource, byNumber}, {}}), "/b");
  EXPECT_EQ(first({{untrusted}, {}}), "");
  EXPECT_EQ(first({{}, {}}), "");
  const std::vector<MountEntry> all =
      MountIndex({{bySource, untrusted, byNumber}, {}}).All({8, 1}, "/dev/sda1");
  EXPECT_EQ(all, (std::vector<MountEntry>{bySource, byNumber}));
}

TEST(MountIndex, AnEntryThatIsBothIsOne) {
  const MountEntry entry{{8, 1}, "/dev/sda1", "/a", false, true};
  EXPECT_EQ(MountIndex({{entry}, {}}).All({8, 1}, "/dev/sda1").size(), 1u);
}

TEST(MountIndex, NumbersThatAreNoDevicesMeanNothing) {
  const MountEntry entry{{0, 40}, "tmpfs", "/a", false, true};
  EXPECT_EQ(MountIndex({{entry}, {}}).First({0, 40}, "/dev/sda1"), nullptr);
}

// ---- The table of this process

TEST(MountTable, ReadsTheTableOfThisProcess) {
  MountTable table([] {});
  ASSERT_EQ(table.Start(), std::nullopt);
  bool root = false;
  for (const MountEntry& entry : table.Current().entries) root = root || entry.target == "/";
  EXPECT_TRUE(root);
  EXPECT_FALSE(table.Refresh());
}

}  // namespace
}  // namespace halkernel
