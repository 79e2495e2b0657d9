#include "hal/kernel/Media.h"

#include <gtest/gtest.h>

#include "support/Hardware.h"

namespace halkernel {
namespace {

using hardware::Card;
using hardware::MountOf;
using hardware::OfMedium;
using hardware::Partition;
using hardware::Stick;

DiskState StateOf(const std::vector<BlockFacts>& reported) {
  DiskState state;
  for (const BlockFacts& facts : reported) TakeIn(state, facts);
  return state;
}

/// The first word of each key: the kinds of the objects in their order.
std::vector<std::string> Kinds(const std::vector<WantedObject>& objects) {
  std::vector<std::string> kinds;
  for (const WantedObject& object : objects) {
    kinds.push_back(object.key.substr(0, object.key.find(' ')));
  }
  return kinds;
}

std::vector<WantedVolume> Volumes(const std::vector<WantedObject>& objects) {
  std::vector<WantedVolume> volumes;
  for (const WantedObject& object : objects) {
    const auto* volume = std::get_if<WantedVolume>(&object.facts);
    if (volume != nullptr) volumes.push_back(*volume);
  }
  return volumes;
}

std::vector<std::string> Uuids(const DiskState& state) {
  std::vector<std::string> uuids;
  for (const WantedVolume& wanted : Volumes(Describe(state, MountIndex()))) {
    uuids.push_back(wanted.volume.uuid);
  }
  return uuids;
}

using Texts = std::vector<std::string>;

// ---- Objects

TEST(Describe, StickHasItsWholeChain) {
  const auto objects = Describe(StateOf({Stick(), Partition(Stick(), 1)}), MountIndex());
  EXPECT_EQ(Kinds(objects), (Texts{"usb_device", "usb_interface", "scsi_host", "scsi_device",
                                   "storage", "volume"}));
  std::string parent;
  for (const WantedObject& object : objects) {
    EXPECT_EQ(object.parent, parent) << object.key;
    parent = object.key;
  }
}

TEST(Describe, CardHasItsWholeChain) {
  const auto objects = Describe(StateOf({Card(), Partition(Card(), 1)}), MountIndex());
  EXPECT_EQ(Kinds(objects), (Texts{"controller", "sd_host", "card", "storage", "volume"}));
  const auto& disk = std::get<hal::DiskFacts>(objects[3].facts);
  EXPECT_EQ(disk.serial, "0x206bb243");
  EXPECT_EQ(disk.bus, "mmc");
}

TEST(Describe, SeveralPartitionsHangOnTheirDisk) {
  const auto objects = Describe(
      StateOf({Stick(), Partition(Stick(), 3, "C"), Partition(Stick(), 1, "A")}), MountIndex());
  ASSERT_EQ(objects.size(), 7u);
  EXPECT_EQ(objects[5].parent, objects[4].key);
  EXPECT_EQ(objects[6].parent, objects[4].key);
}

TEST(Describe, EmptySlotIsADiskWithoutVolume) {
  EXPECT_EQ(Kinds(Describe(StateOf({Stick()}), MountIndex())).back(), "storage");
}

TEST(Describe, VolumesExistWhereAFileSystemIs) {
  for (const auto& [usage, expected] : std::vector<std::pair<std::string, std::size_t>>{
           {"filesystem", 1}, {"", 0}, {"other", 0}, {"crypto", 0}, {"raid", 0}}) {
    BlockFacts partition = Partition(Stick(), 1);
    partition.filesystem.usage = usage;
    const auto objects = Describe(StateOf({Stick(), partition}), MountIndex());
    EXPECT_EQ(Volumes(objects).size(), expected) << usage;
  }
}

TEST(Describe, FileSystemOnTheWholeDiskIsAVolumeUnlessThereArePartitions) {
  BlockFacts disk = Stick();
  disk.filesystem = {"filesystem", "exfat", "1234-ABCD", ""};
  const auto volumes = Volumes(Describe(StateOf({disk}), MountIndex()));
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0].volume.partition, 0);
  EXPECT_EQ(volumes[0].volume.node.path, "/dev/sda");

  BlockFacts partitioned = disk;
  partitioned.hasPartitions = true;
  EXPECT_TRUE(Volumes(Describe(StateOf({partitioned}), MountIndex())).empty());

  // Reported before sysfs showed it.
  BlockFacts swap = Partition(disk, 1);
  swap.filesystem.usage = "other";
  EXPECT_TRUE(Volumes(Describe(StateOf({disk, swap}), MountIndex())).empty());
}

TEST(Describe, WithoutItsDiskAPartitionIsNothing) {
  EXPECT_TRUE(Describe(StateOf({Partition(Stick(), 1)}), MountIndex()).empty());
}

TEST(Describe, WhatWasTakenAwayByHandIsNotThere) {
  DiskState state = StateOf({Stick(), Partition(Stick(), 1, "A"), Partition(Stick(), 2, "B")});
  state.partitions.begin()->second.withdrawn = true;
  EXPECT_EQ(Uuids(state), Texts{"B"});
  state.disk->withdrawn = true;
  EXPECT_TRUE(Describe(state, MountIndex()).empty());
}

TEST(Describe, TextsOfTheMediumAreMadeValid) {
  BlockFacts disk = Stick();
  std::get<UsbChain>(disk.chain).device.serial = "a\nb\xff";
  BlockFacts partition = Partition(disk, 1, "..\x01/\x80");
  partition.filesystem.encodedLabel = "a\\x0a\\xffb";
  const auto objects = Describe(StateOf({disk, partition}), MountIndex());
  EXPECT_EQ(std::get<hal::UsbDeviceFacts>(objects[0].facts).serial, "a_b\xEF\xBF\xBD");
  const WantedVolume volume = Volumes(objects).at(0);
  EXPECT_EQ(volume.volume.uuid, ".._/\xEF\xBF\xBD");
  EXPECT_EQ(volume.volume.label,
            "a_\xEF\xBF\xBD"
            "b");
  for (const WantedObject& object : objects) {
    for (const char c : object.key) EXPECT_TRUE(c >= 0x20 && c < 0x7F) << object.key;
  }
}

// ---- Keys

TEST(Key, TellsDevicesAndMediaAtOnePlaceApart) {
  const auto keysOf = [](const BlockFacts& disk, const BlockFacts& partition) {
    Texts keys;
    for (const WantedObject& object : Describe(StateOf({disk, partition}), MountIndex())) {
      keys.push_back(object.key);
    }
    return keys;
  };
  const Texts keys = keysOf(Stick(), Partition(Stick(), 1));
  EXPECT_EQ(keysOf(Stick(), Partition(Stick(), 1)), keys);

  BlockFacts relabelled = Partition(Stick(), 1);
  relabelled.filesystem.encodedLabel = "other";
  EXPECT_EQ(keysOf(Stick(), relabelled), keys);
  EXPECT_NE(keysOf(Stick(), Partition(Stick(), 1, "other")).back(), keys.back());
  const BlockFacts newer = OfMedium(Stick(), 8);
  EXPECT_NE(keysOf(newer, Partition(newer, 1)).back(), keys.back());
  EXPECT_EQ(keysOf(newer, Partition(newer, 1))[4], keys[4]);

  BlockFacts other = Stick();
  std::get<UsbChain>(other.chain).device.serial = "BB";
  EXPECT_NE(keysOf(other, Partition(other, 1)).front(), keys.front());
}

// ---- What is left out

TEST(LeftOut, SystemDisk) {
  const struct {
    const char* place;
    bool leftOut;
  } kRows[] = {{"/", true},         {"/boot", true},     {"/boot/firmware", true},
               {"/usr", true},      {"/var", true},      {"/home", true},
               {"/media/x", false}, {"/mnt", false},     {"/var/lib/x", false},
               {"/home/me", false}, {"/usr/src", false}, {"/srv", false}};
  for (const auto& row : kRows) {
    // The disk is left out as a whole, also for a partition that is no volume.
    BlockFacts root = Partition(Card(), 2, "R");
    root.filesystem.usage = "";
    const DiskState state = StateOf({Card(), Partition(Card(), 1), root});
    const MountIndex mounts(Mounts{{MountOf(root, row.place)}, {}});
    EXPECT_EQ(LeftOut(state, mounts) != nullptr, row.leftOut) << row.place;
    EXPECT_EQ(Describe(state, mounts).empty(), row.leftOut) << row.place;
  }
}

TEST(LeftOut, ADiskThatIsSwappedOnOrWhoseSecondMountIsTheSystems) {
  const BlockFacts partition = Partition(Card(), 1);
  const DiskState state = StateOf({Card(), partition});
  EXPECT_NE(LeftOut(state, MountIndex(Mounts{{}, {"/dev/mmcblk0p1"}})), nullptr);
  EXPECT_EQ(LeftOut(state, MountIndex(Mounts{{}, {"/dev/mmcblk0p2"}})), nullptr);
  const Mounts two{{MountOf(partition, "/media/x"), MountOf(partition, "/home")}, {}};
  EXPECT_NE(LeftOut(state, MountIndex(two)), nullptr);
}

TEST(LeftOut, EmmcOpticalDrivesOtherBusesAndWhatIsLeftToOthers) {
  EXPECT_NE(LeftOut(StateOf({Card("MMC")}), MountIndex()), nullptr);
  EXPECT_EQ(LeftOut(StateOf({Card("SD")}), MountIndex()), nullptr);
  EXPECT_EQ(LeftOut(StateOf({Card("")}), MountIndex()), nullptr);
  BlockFacts plain = Stick();
  plain.chain = std::monostate();
  EXPECT_NE(LeftOut(StateOf({plain}), MountIndex()), nullptr);
  BlockFacts optical = Stick();
  optical.optical = true;
  EXPECT_NE(LeftOut(StateOf({optical}), MountIndex()), nullptr);
  BlockFacts ignored = Stick();
  ignored.leftToOthers = true;
  EXPECT_NE(LeftOut(StateOf({ignored}), MountIndex()), nullptr);
}

TEST(LeftOut, APartitionAlone) {
  BlockFacts ignored = Partition(Stick(), 1, "A");
  ignored.leftToOthers = true;
  EXPECT_EQ(Uuids(StateOf({Stick(), ignored, Partition(Stick(), 2, "B")})), Texts{"B"});
}

// ---- Mount state

TEST(Describe, VolumeIsMountedWhereTheTableSaysFirst) {
  const BlockFacts partition = Partition(Stick(), 1);
  const DiskState state = StateOf({Stick(), partition});
  const MountIndex mounts(
      Mounts{{MountOf(partition, "/media/a", true), MountOf(partition, "/media/b")}, {}});
  EXPECT_EQ(Volumes(Describe(state, mounts)).at(0).mount, (VolumeMount{"/media/a", true, true}));
  EXPECT_EQ(Volumes(Describe(state, MountIndex())).at(0).mount, VolumeMount());
}

// ---- The medium rule

TEST(MediumRule, NewerNumberMakesTheOldPartitionsObsolete) {
  DiskState state = StateOf({Stick(), Partition(Stick(), 1, "old")});
  EXPECT_EQ(TakeIn(state, OfMedium(Stick(), 8)), Intake::NewMedium);
  EXPECT_EQ(Uuids(state), Texts());
  EXPECT_EQ(TakeIn(state, OfMedium(Partition(Stick(), 1, "new"), 8)), Intake::Taken);
  EXPECT_EQ(Uuids(state), Texts{"new"});
}

TEST(MediumRule, OldWordsAreDropped) {
  DiskState state = StateOf({OfMedium(Stick(), 8)});
  EXPECT_EQ(TakeIn(state, OfMedium(Partition(Stick(), 1), 7)), Intake::Obsolete);
  EXPECT_EQ(TakeIn(state, OfMedium(Stick(), 7)), Intake::Obsolete);
  EXPECT_EQ(Uuids(state), Texts());
  EXPECT_EQ(state.medium, 8u);
}

TEST(MediumRule, APartitionMayTellOfTheNewMediumBeforeTheDisk) {
  BlockFacts disk = Stick();
  disk.filesystem = {"filesystem", "vfat", "whole", ""};
  DiskState state = StateOf({disk});
  EXPECT_EQ(Uuids(state), Texts{"whole"});
  EXPECT_EQ(TakeIn(state, OfMedium(Partition(Stick(), 1, "new"), 8)), Intake::NewMedium);
  EXPECT_EQ(Uuids(state), Texts{"new"});
  EXPECT_EQ(TakeIn(state, OfMedium(Stick(), 8)), Intake::Taken);
  EXPECT_EQ(Uuids(state), Texts{"new"});
}

TEST(MediumRule, AnOldWordOnTheDiskIsBetterThanNone) {
  DiskState state = StateOf({OfMedium(Partition(Stick(), 1, "new"), 8)});
  BlockFacts disk = OfMedium(Stick(), 4);
  disk.filesystem = {"filesystem", "vfat", "old", ""};
  EXPECT_EQ(TakeIn(state, disk), Intake::Taken);
  EXPECT_EQ(Uuids(state), Texts{"new"});
}

TEST(MediumRule, WithoutNumbersTheChangeIsCounted) {
  BlockFacts disk = Stick();
  disk.diskSequence.reset();
  BlockFacts partition = Partition(disk, 1, "old");
  DiskState state = StateOf({disk, partition});
  EXPECT_EQ(Uuids(state), Texts{"old"});
  EXPECT_EQ(TakeIn(state, disk), Intake::Taken);
  EXPECT_EQ(Uuids(state), Texts{"old"});
  disk.mediumChanged = true;
  EXPECT_EQ(TakeIn(state, disk), Intake::NewMedium);
  EXPECT_EQ(Uuids(state), Texts());
  EXPECT_EQ(TakeIn(state, Partition(disk, 1, "new")), Intake::Taken);
  EXPECT_EQ(Uuids(state), Texts{"new"});
}

TEST(MediumRule, TheFirstWordIsNoChange) {
  DiskState state;
  BlockFacts disk = Stick();
  disk.mediumChanged = true;
  EXPECT_EQ(TakeIn(state, disk), Intake::Taken);
}

// ---- Texts

TEST(DecodeLabel, Table) {
  const struct {
    const char* encoded;
    const char* label;
  } kRows[] = {
      {"", ""},
      {"CHARTS\\x2024", "CHARTS 24"},
      {"TWO_b\\x2fx", "TWO_b/x"},
      {"\\x5c", "\\"},
      {"\\xC3\\xBC", "\xC3\xBC"},
      {"\\xc3", "\xEF\xBF\xBD"},
      {"\\x0a\\x7f\\x00", "__\xEF\xBF\xBD"},
      {"\\x2", "\\x2"},
      {"\\x", "\\x"},
      {"\\xg0", "\\xg0"},
      {"\\", "\\"},
      {"a\\x20", "a "},
  };
  for (const auto& row : kRows) EXPECT_EQ(DecodeLabel(row.encoded), row.label) << row.encoded;
}

TEST(PlugOf, Table) {
  EXPECT_EQ(PlugOf(Stick().sysfsPath), "usb 1-1.3");
  EXPECT_EQ(PlugOf(Card().sysfsPath), "mmc0");
  EXPECT_EQ(PlugOf("/sys/devices/pci0000:00/0000:00:14.0/usb2/2-3/2-3:1.0/host4/block/sdb"),
            "usb 2-3");
  EXPECT_EQ(PlugOf("/sys/devices/virtual/block/loop0"), "");
  EXPECT_EQ(PlugOf(""), "");
  EXPECT_EQ(PlugOf("///"), "");
}

}  // namespace
}  // namespace halkernel
