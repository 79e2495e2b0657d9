#include "hal/kernel/BlockDevices.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support/Hardware.h"
#include "support/TreeTape.h"

namespace halkernel {
namespace {

using hardware::Card;
using hardware::MountOf;
using hardware::OfMedium;
using hardware::Partition;
using hardware::Stick;
using Texts = std::vector<std::string>;

/// A machine whose mount table and disks the test sets.
class Machine : public IMountSource, public IMediumActions {
 public:
  bool Refresh() override {
    const bool differs = !(table == read_);
    read_ = table;
    return differs;
  }
  const Mounts& Current() const override { return read_; }

  void Detach(const std::string& mountPoint) override {
    tape->Note("detach " + mountPoint);
    if (stuck) return;
    const auto here = [&](const MountEntry& entry) { return entry.target == mountPoint; };
    // The last that was mounted there goes first.
    const auto last = std::find_if(table.entries.rbegin(), table.entries.rend(), here);
    if (last != table.entries.rend()) table.entries.erase(std::next(last).base());
  }
  void Reopen(const std::string& node) override { tape->Note("reopen " + node); }

  Mounts table;
  std::vector<BlockFacts> present;
  bool stuck = false;  // nothing can be detached
  TreeTape* tape = nullptr;

 private:
  Mounts read_;
};

class BlockDevicesTest : public testing::Test {
 protected:
  BlockDevicesTest() { machine_.tape = &tape_; }

  void Start(const std::optional<State>& before = std::nullopt) {
    devices_.Prepare(before);
    EXPECT_EQ(tape_.Take(), Texts());
    devices_.Announce();
  }
  void Tell(const std::vector<BlockFacts>& all) {
    for (const BlockFacts& facts : all) devices_.BlockDeviceReported(facts);
  }
  /// The lines about volumes, and what was done to media.
  Texts TakeVolumes() {
    Texts lines = tape_.Take();
    std::erase_if(lines, [](const std::string& line) {
      return line.find("volume_") == std::string::npos && line.find("detach") != 0 &&
             line.find("reopen") != 0;
    });
    return lines;
  }

  hal::DeviceTree tree_;
  TreeTape tape_{tree_};
  Machine machine_;
  Reconciler reconciler_{tree_, [] {}};
  BlockDevices devices_{tree_, reconciler_, machine_, machine_,
                        [this] { return machine_.present; }};

  const BlockFacts stick_ = Stick();
  const BlockFacts first_ = Partition(Stick(), 1, "A");
  const BlockFacts second_ = Partition(Stick(), 2, "B");
  const std::string unmounted_ = " volume.mount_point volume.is_mounted";
};

TEST_F(BlockDevicesTest, ColdPlugIsSilent) {
  machine_.present = {stick_, first_, Card(), Partition(Card(), 1, "C")};
  machine_.table.entries = {MountOf(first_, "/media/a")};
  Start();
  EXPECT_EQ(tape_.Take(), Texts());
  EXPECT_EQ(tree_.FindByCapability("volume").size(), 2u);
  const hal::Device* volume = tree_.Find("/org/freedesktop/Hal/devices/volume_uuid_A");
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->Text("volume.mount_point"), "/media/a");
}

TEST_F(BlockDevicesTest, PartitionsComeInAnyOrderAlsoBeforeTheirDisk) {
  std::vector<BlockFacts> facts = {stick_, first_, second_};
  std::vector<int> order = {0, 1, 2};
  do {
    for (const int place : order)
      devices_.BlockDeviceReported(facts[static_cast<std::size_t>(place)]);
    EXPECT_EQ(tree_.FindByCapability("volume").size(), 2u);
    devices_.Gone(first_.sysfsPath, false);
    devices_.Gone(second_.sysfsPath, false);
    devices_.Gone(stick_.sysfsPath, false);
    EXPECT_EQ(tree_.Devices().size(), 1u);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(BlockDevicesTest, EventsThatChangeNothingAreSilent) {
  Tell({stick_, first_});
  tape_.Take();
  Tell({stick_, first_, stick_});
  EXPECT_EQ(tape_.Take(), Texts());
}

TEST_F(BlockDevicesTest, TornOutWhileMountedIsDetachedAndToldUnmountedBeforeItGoes) {
  Tell({stick_, first_, second_});
  machine_.table.entries = {MountOf(first_, "/media/a"), MountOf(first_, "/mnt/b")};
  devices_.RefreshMounts();
  tape_.Take();
  devices_.Gone(first_.sysfsPath, false);
  EXPECT_EQ(tape_.Take(), (Texts{"detach /mnt/b", "detach /media/a", "~ volume_uuid_A" + unmounted_,
                                 "- volume_uuid_A"}));
  devices_.Gone(second_.sysfsPath, false);
  devices_.Gone(stick_.sysfsPath, false);
  EXPECT_EQ(tree_.Devices().size(), 1u);
}

TEST_F(BlockDevicesTest, TheDiskMayGoBeforeItsPartitions) {
  Tell({stick_, first_});
  machine_.table.entries = {MountOf(first_, "/media/a")};
  devices_.RefreshMounts();
  tape_.Take();
  devices_.Gone(stick_.sysfsPath, false);
  const Texts lines = tape_.Take();
  EXPECT_EQ(lines[0], "detach /media/a");
  EXPECT_EQ(lines[1], "~ volume_uuid_A" + unmounted_);
  EXPECT_EQ(lines[2], "- volume_uuid_A");
  EXPECT_EQ(tree_.Devices().size(), 1u);
  devices_.Gone(first_.sysfsPath, false);
  EXPECT_EQ(tape_.Take(), Texts());
}

TEST_F(BlockDevicesTest, WhatCannotBeDetachedGoesAllTheSame) {
  Tell({stick_, first_});
  machine_.table.entries = {MountOf(first_, "/media/a")};
  devices_.RefreshMounts();
  machine_.stuck = true;
  devices_.Gone(stick_.sysfsPath, false);
  EXPECT_EQ(tree_.Devices().size(), 1u);
}

TEST_F(BlockDevicesTest, EventsWrittenByHandUnmountNothing) {
  Tell({stick_, first_});
  machine_.table.entries = {MountOf(first_, "/media/a")};
  devices_.RefreshMounts();
  tape_.Take();
  devices_.Gone(first_.sysfsPath, true);
  EXPECT_EQ(tape_.Take(), Texts{"- volume_uuid_A"});
  devices_.Gone(stick_.sysfsPath, true);
  EXPECT_EQ(tree_.Devices().size(), 1u);
  tape_.Take();
  devices_.BlockDeviceReported(stick_);
  devices_.BlockDeviceReported(first_);
  EXPECT_EQ(TakeVolumes(), Texts{"+ volume_uuid_A"});
  EXPECT_EQ(tree_.Find("/org/freedesktop/Hal/devices/volume_uuid_A")->Text("volume.mount_point"),
            "/media/a");
  // Taken away by hand and then torn out: the mount goes.
  devices_.Gone(first_.sysfsPath, true);
  tape_.Take();
  devices_.Gone(first_.sysfsPath, false);
  EXPECT_EQ(tape_.Take(), Texts{"detach /media/a"});
}

TEST_F(BlockDevicesTest, AChangedCardIsDetachedTakenOutAndLookedAtAnew) {
  Tell({stick_, first_});
  machine_.table.entries = {MountOf(first_, "/media/a")};
  devices_.RefreshMounts();
  tape_.Take();
  Tell({OfMedium(stick_, 8)});
  EXPECT_EQ(tape_.Take(), (Texts{"detach /media/a", "~ volume_uuid_A" + unmounted_,
                                 "- volume_uuid_A", "reopen /dev/sda"}));
  // A late word about the card that is gone.
  Tell({first_});
  EXPECT_EQ(tape_.Take(), Texts());
  Tell({OfMedium(Partition(stick_, 1, "N"), 8)});
  EXPECT_EQ(tape_.Take(), Texts{"+ volume_uuid_N"});
}

TEST_F(BlockDevicesTest, AnEmptySlotIsNotOpenedWhenACardComes) {
  Tell({stick_});
  tape_.Take();
  Tell({OfMedium(stick_, 8), OfMedium(first_, 8)});
  EXPECT_EQ(tape_.Take(), Texts{"+ volume_uuid_A"});
}

TEST_F(BlockDevicesTest, MountsByOthersAreTold) {
  Tell({stick_, first_, second_});
  tape_.Take();
  machine_.table.entries = {MountOf(second_, "/mnt/b")};
  devices_.RefreshMounts();
  EXPECT_EQ(tape_.Take(), Texts{"~ volume_uuid_B" + unmounted_});
  machine_.table.entries = {MountOf(second_, "/mnt/b", true)};
  devices_.RefreshMounts();
  EXPECT_EQ(tape_.Take(), Texts{"~ volume_uuid_B volume.is_mounted_read_only"});
  // Some changes wake nobody: they are found at the next event.
  machine_.table.entries = {MountOf(second_, "/mnt/b", false)};
  devices_.BlockDeviceReported(first_);
  EXPECT_EQ(tape_.Take(), Texts{"~ volume_uuid_B volume.is_mounted_read_only"});
  machine_.table.entries.clear();
  devices_.RefreshMounts();
  EXPECT_EQ(tape_.Take(), Texts{"~ volume_uuid_B" + unmounted_});
}

TEST_F(BlockDevicesTest, TheSystemsDiskIsLeftOutAndNeverDetached) {
  machine_.present = {Card(), Partition(Card(), 1, "C")};
  machine_.table.entries = {MountOf(Partition(Card(), 1), "/")};
  Start();
  EXPECT_EQ(tree_.Devices().size(), 1u);
  devices_.Gone(Partition(Card(), 1).sysfsPath, false);
  devices_.Gone(Card().sysfsPath, false);
  EXPECT_EQ(tape_.Take(), Texts());
}

TEST_F(BlockDevicesTest, ADiskThatBecomesTheSystemsGoesMounted) {
  Tell({stick_, first_});
  tape_.Take();
  machine_.table.entries = {MountOf(first_, "/home")};
  devices_.RefreshMounts();
  EXPECT_EQ(TakeVolumes(), Texts{"- volume_uuid_A"});
  machine_.table.entries.clear();
  devices_.RefreshMounts();
  EXPECT_EQ(TakeVolumes(), Texts{"+ volume_uuid_A"});
}

TEST_F(BlockDevicesTest, LostEventsAreMadeUpFor) {
  Tell({stick_, first_, second_, Card(), Partition(Card(), 1, "C")});
  machine_.table.entries = {MountOf(second_, "/media/b")};
  devices_.RefreshMounts();
  tape_.Take();
  machine_.present = {stick_, first_, Partition(stick_, 3, "N")};
  devices_.StartOver();
  const Texts lines = TakeVolumes();
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()),
            (std::set<std::string>{"detach /media/b", "~ volume_uuid_B" + unmounted_,
                                   "- volume_uuid_B", "- volume_uuid_C", "+ volume_uuid_N"}));
  devices_.StartOver();
  EXPECT_EQ(tape_.Take(), Texts());
}

TEST_F(BlockDevicesTest, AfterLostEventsAChangedCardIsTold) {
  Tell({stick_, first_});
  machine_.table.entries = {MountOf(first_, "/media/a")};
  devices_.RefreshMounts();
  tape_.Take();
  machine_.present = {OfMedium(stick_, 9), OfMedium(first_, 9)};
  devices_.StartOver();
  EXPECT_EQ(tape_.Take(), (Texts{"detach /media/a", "~ volume_uuid_A" + unmounted_,
                                 "- volume_uuid_A", "reopen /dev/sda", "+ volume_uuid_A"}));
}

TEST_F(BlockDevicesTest, GoneOfWhatIsNotKnownIsNothing) {
  devices_.Gone("", false);
  devices_.Gone("/", false);
  devices_.Gone("sda", true);
  devices_.Gone(first_.sysfsPath, false);
  EXPECT_EQ(tape_.Take(), Texts());
}

// ---- Restart

class BlockDevicesRestartTest : public BlockDevicesTest {
 protected:
  /// What a service kept that served this.
  static State StateAfter(const std::vector<BlockFacts>& reported, const Mounts& mounts = {}) {
    hal::DeviceTree tree;
    TreeTape tape(tree);
    Machine machine;
    machine.tape = &tape;
    machine.present = reported;
    machine.table = mounts;
    Reconciler reconciler(tree, [] {});
    BlockDevices devices(tree, reconciler, machine, machine, [&] { return machine.present; });
    devices.Prepare(std::nullopt);
    return {reconciler.Kept(), {}};
  }
};

TEST_F(BlockDevicesRestartTest, NothingIsToldWhereNothingChanged) {
  machine_.present = {stick_, first_};
  machine_.table.entries = {MountOf(first_, "/media/a")};
  Start(StateAfter(machine_.present, machine_.table));
  EXPECT_EQ(tape_.Take(), Texts());
  EXPECT_EQ(tree_.FindByCapability("volume").size(), 1u);
}

TEST_F(BlockDevicesRestartTest, WhatWasTornOutMeanwhileIsDetachedAndTold) {
  const Mounts mounts{{MountOf(first_, "/media/a"), MountOf(second_, "/home")}, {}};
  machine_.table = mounts;
  Start(StateAfter({stick_, first_}, {{MountOf(first_, "/media/a")}, {}}));
  EXPECT_EQ(TakeVolumes(),
            (Texts{"detach /media/a", "~ volume_uuid_A" + unmounted_, "- volume_uuid_A"}));
  EXPECT_EQ(tree_.Devices().size(), 1u);
}

TEST_F(BlockDevicesRestartTest, TheSameNodeOfAnotherDeviceElsewhereStaysMounted) {
  const State before = StateAfter({stick_, first_}, {{MountOf(first_, "/media/a")}, {}});
  const BlockFacts other = Stick("sda", 5);
  const BlockFacts partition = Partition(other, 1, "N");
  machine_.present = {other, partition};
  machine_.table.entries = {MountOf(partition, "/mnt/n")};
  Start(before);
  EXPECT_EQ(TakeVolumes(), (Texts{"- volume_uuid_A", "+ volume_uuid_N"}));
}

TEST_F(BlockDevicesRestartTest, ACardChangedMeanwhileIsDetachedAndLookedAtAnew) {
  const State before = StateAfter({stick_, first_}, {{MountOf(first_, "/media/a")}, {}});
  machine_.present = {OfMedium(stick_, 8), OfMedium(first_, 8)};
  machine_.table.entries = {MountOf(first_, "/media/a")};
  Start(before);
  EXPECT_EQ(TakeVolumes(), (Texts{"detach /media/a", "~ volume_uuid_A" + unmounted_,
                                  "reopen /dev/sda", "- volume_uuid_A", "+ volume_uuid_A"}));
}

TEST_F(BlockDevicesRestartTest, WhatCameAndWhatWasMountedMeanwhileIsTold) {
  const State before = StateAfter({stick_, first_});
  machine_.present = {stick_, first_, second_};
  machine_.table.entries = {MountOf(first_, "/media/a")};
  Start(before);
  EXPECT_EQ(TakeVolumes(), (Texts{"~ volume_uuid_A" + unmounted_, "+ volume_uuid_B"}));
}

}  // namespace
}  // namespace halkernel
