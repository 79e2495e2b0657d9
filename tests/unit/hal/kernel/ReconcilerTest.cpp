#include "hal/kernel/Reconciler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "hal/face/HalNames.h"
#include "support/Hardware.h"
#include "support/TreeTape.h"

namespace halkernel {
namespace {

using hardware::Card;
using hardware::OfMedium;
using hardware::Partition;
using hardware::Stick;
using Texts = std::vector<std::string>;

std::vector<WantedObject> Describe(const std::vector<BlockFacts>& reported,
                                   const Mounts& mounts = {}) {
  DiskState state;
  for (const BlockFacts& facts : reported) TakeIn(state, facts);
  return halkernel::Describe(state, MountIndex(mounts));
}

class ReconcilerTest : public testing::Test {
 protected:
  hal::DeviceTree tree_;
  TreeTape tape_{tree_};
  Reconciler reconciler_{tree_, [this] { tape_.Note("kept"); }};
};

const char* const kUsb = "usb_device_90c_1000_AA99";

TEST_F(ReconcilerTest, ArrivalBringsParentsFirstAndIsKeptBefore) {
  reconciler_.Show("sda", Describe({Stick(), Partition(Stick(), 1)}));
  const std::string usb = kUsb;
  EXPECT_EQ(tape_.Take(),
            (Texts{"kept", "+ " + usb, "+ " + usb + "_if0", "+ " + usb + "_if0_scsi_host",
                   "+ " + usb + "_if0_scsi_host_scsi_device_lun0",
                   "+ storage_serial_Acme_Voyager_AA99_0_0", "+ volume_uuid_0000_060C"}));
  const hal::Device* volume = tree_.Find("/org/freedesktop/Hal/devices/volume_uuid_0000_060C");
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->Text("info.parent"),
            "/org/freedesktop/Hal/devices/storage_serial_Acme_Voyager_AA99_0_0");
  EXPECT_EQ(volume->Text("block.storage_device"), volume->Text("info.parent"));
  EXPECT_EQ(volume->Text("volume.label"), "CHARTS 24");
}

TEST_F(ReconcilerTest, RemovalTakesChildrenFirstAndIsKeptAfter) {
  reconciler_.Show("sda", Describe({Card(), Partition(Card(), 1)}));
  Texts arrival = tape_.Take();
  reconciler_.Show("sda", {});
  Texts removal;
  for (auto line = arrival.rbegin(); line != arrival.rend(); ++line) {
    if (line->starts_with("+")) removal.push_back("-" + line->substr(1));
  }
  removal.push_back("kept");
  EXPECT_EQ(tape_.Take(), removal);
  EXPECT_TRUE(reconciler_.Kept().empty());
}

TEST_F(ReconcilerTest, TheSameAgainIsSilent) {
  const auto wanted = Describe({Stick(), Partition(Stick(), 1)});
  reconciler_.Show("sda", wanted);
  tape_.Take();
  reconciler_.Show("sda", wanted);
  EXPECT_EQ(tape_.Take(), Texts());
}

TEST_F(ReconcilerTest, WhatChangesIsModifiedAndTheMountPointIsToldFirst) {
  BlockFacts partition = Partition(Stick(), 1);
  reconciler_.Show("sda", Describe({Stick(), partition}));
  tape_.Take();
  partition.filesystem.encodedLabel = "OTHER";
  reconciler_.Show("sda", Describe({Stick(), partition},
                                   {{hardware::MountOf(partition, "/media/x", true)}, {}}));
  EXPECT_EQ(tape_.Take(),
            (Texts{"~ volume_uuid_0000_060C volume.label",
                   "~ volume_uuid_0000_060C volume.mount_point volume.is_mounted_read_only "
                   "volume.is_mounted",
                   "kept"}));
}

TEST_F(ReconcilerTest, ANewFileSystemReplacesTheVolume) {
  reconciler_.Show("sda", Describe({Stick(), Partition(Stick(), 1, "A")}));
  tape_.Take();
  reconciler_.Show("sda", Describe({Stick(), Partition(Stick(), 1, "B")}));
  EXPECT_EQ(tape_.Take(), (Texts{"- volume_uuid_A", "kept", "kept", "+ volume_uuid_B"}));
}

TEST_F(ReconcilerTest, TheSameNameTwiceGetsANumber) {
  reconciler_.Show("sda", Describe({Stick(), Partition(Stick(), 1), Partition(Stick(), 2)}));
  EXPECT_NE(tree_.Find("/org/freedesktop/Hal/devices/volume_uuid_0000_060C_0"), nullptr);
}

TEST_F(ReconcilerTest, SlotsOfAReaderShareWhatIsAboveThem) {
  reconciler_.Show("sda", Describe({Stick("sda", 0, 0)}));
  tape_.Take();
  reconciler_.Show("sdb", Describe({Stick("sdb", 0, 1)}));
  EXPECT_EQ(tape_.Take(),
            (Texts{"kept", "+ " + std::string(kUsb) + "_if0_scsi_host_scsi_device_lun1",
                   "+ storage_serial_Acme_Voyager_AA99_0_1"}));
  reconciler_.Show("sda", {});
  EXPECT_EQ(tape_.Take(),
            (Texts{"- storage_serial_Acme_Voyager_AA99_0_0",
                   "- " + std::string(kUsb) + "_if0_scsi_host_scsi_device_lun0", "kept"}));
  reconciler_.Show("sdb", {});
  EXPECT_EQ(tree_.Devices().size(), 1u);
}

TEST_F(ReconcilerTest, AnotherDeviceInThePortReplacesAllBelow) {
  reconciler_.Show("sda", Describe({Stick(), Partition(Stick(), 1)}));
  tape_.Take();
  BlockFacts other = Stick();
  std::get<UsbChain>(other.chain).device.serial = "BB";
  reconciler_.Show("sda", Describe({other, Partition(other, 1)}));
  const Texts lines = tape_.Take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.starts_with("- "); }),
            6);
  EXPECT_EQ(lines.front(), "- volume_uuid_0000_060C");
  EXPECT_EQ(lines.back(), "+ volume_uuid_0000_060C");
}

TEST_F(ReconcilerTest, WhatIsSharedMovesBelowTheNewDevice) {
  reconciler_.Show("sda", Describe({Stick("sda", 0, 0)}));
  reconciler_.Show("sdb", Describe({Stick("sdb", 0, 1)}));
  // Events were lost: the other slot still speaks of the device before.
  BlockFacts other = Stick("sda", 0, 0);
  std::get<UsbChain>(other.chain).device.serial = "BB";
  reconciler_.Show("sda", Describe({other}));
  const hal::Device* device =
      tree_.Find("/org/freedesktop/Hal/devices/storage_serial_Acme_Voyager_AA99_0_0");
  ASSERT_NE(device, nullptr);
  while (device->Text("info.parent") != hal::kRootDevice) {
    device = tree_.Find(device->Text("info.parent"));
    ASSERT_NE(device, nullptr);
  }
  EXPECT_EQ(device->udi, "/org/freedesktop/Hal/devices/usb_device_90c_1000_BB");
}

TEST_F(ReconcilerTest, NoTextOfTheHardwareBringsABusIntoAName) {
  BlockFacts disk = Stick();
  std::get<UsbChain>(disk.chain).device.serial = "mmc7/scsi";
  disk.serial = "usb_mmc_scsi/..";
  reconciler_.Show("sda", Describe({disk, Partition(disk, 1, "scsi/mmc")}));
  for (const hal::Device& device : tree_.Devices()) {
    std::string name = device.udi.substr(std::string(hal::kDevicePrefix).size());
    EXPECT_EQ(name.find('/'), std::string::npos) << name;
    EXPECT_EQ(name.find("mmc"), std::string::npos) << name;
    if (device.kind == hal::DeviceKind::Storage || device.kind == hal::DeviceKind::Volume) {
      EXPECT_EQ(name.find("usb"), std::string::npos) << name;
      EXPECT_EQ(name.find("scsi"), std::string::npos) << name;
    }
  }
}

// ---- Restart

class RestartTest : public ReconcilerTest {
 protected:
  /// What a service that showed this would have kept.
  static std::vector<KeptObject> KeptOf(const std::vector<WantedObject>& wanted) {
    hal::DeviceTree tree;
    Reconciler before(tree, [] {});
    before.Show("sda", wanted);
    return before.Kept();
  }
};

TEST_F(RestartTest, WhatIsStillThereIsNotToldAgain) {
  const auto wanted = Describe({Stick(), Partition(Stick(), 1), Partition(Stick(), 2)});
  reconciler_.Restore(KeptOf(wanted));
  reconciler_.Resemble(wanted);
  EXPECT_TRUE(reconciler_.Leftovers().empty());
  reconciler_.DropLeftovers();
  reconciler_.Show("sda", wanted);
  EXPECT_EQ(tape_.Take(), Texts());
  EXPECT_EQ(reconciler_.Kept(), KeptOf(wanted));
}

TEST_F(RestartTest, NamesStayWhateverTheOrder) {
  const auto wanted = Describe({Stick(), Partition(Stick(), 1), Partition(Stick(), 2)});
  std::vector<KeptObject> kept = KeptOf(wanted);
  std::swap(kept[5].name, kept[6].name);
  reconciler_.Restore(kept);
  reconciler_.Resemble(wanted);
  reconciler_.Show("sda", wanted);
  EXPECT_EQ(reconciler_.Kept(), kept);
}

TEST_F(RestartTest, OnlyTheDifferenceIsTold) {
  const BlockFacts stays = Partition(Stick(), 1, "A");
  reconciler_.Restore(KeptOf(Describe({Stick(), stays, Partition(Stick(), 2, "B")})));
  const auto wanted = Describe({Stick(), stays, Partition(Stick(), 3, "C")},
                               {{hardware::MountOf(stays, "/media/a")}, {}});
  reconciler_.Resemble(wanted);
  EXPECT_EQ(tape_.Take(), Texts());
  ASSERT_EQ(reconciler_.Leftovers().size(), 1u);
  EXPECT_EQ(reconciler_.Leftovers()[0].node, "/dev/sda2");
  reconciler_.DropLeftovers();
  reconciler_.Show("sda", wanted);
  EXPECT_EQ(tape_.Take(), (Texts{"- volume_uuid_B", "kept",
                                 "~ volume_uuid_A volume.mount_point volume.is_mounted", "kept",
                                 "kept", "+ volume_uuid_C"}));
}

TEST_F(RestartTest, ADeviceThatIsGoneTakesAllBelowWithIt) {
  reconciler_.Restore(KeptOf(Describe({Stick(), Partition(Stick(), 1)})));
  reconciler_.DropLeftovers();
  EXPECT_EQ(tape_.Take().size(), 7u);
  EXPECT_EQ(tree_.Devices().size(), 1u);
}

// ---- Against a naive model

/// What a random sequence of plugs and pulls makes of the tree must be what showing the last state
/// to an empty tree makes, and the announcements must lead from one to the next.
class Follower : public hal::IDeviceTreeObserver {
 public:
  explicit Follower(hal::DeviceTree& tree) : tree_(tree) { tree.SetObserver(this); }

  void DeviceAdded(const std::string& udi) override {
    EXPECT_TRUE(known_.insert(udi).second) << udi;
    const std::string parent = tree_.Find(udi)->Text("info.parent");
    EXPECT_TRUE(parent == hal::kRootDevice || known_.contains(parent)) << udi;
  }
  void DeviceRemoved(const std::string& udi) override {
    EXPECT_EQ(known_.erase(udi), 1u) << udi;
    for (const hal::Device& device : tree_.Devices()) EXPECT_NE(device.Text("info.parent"), udi);
  }
  void PropertiesModified(const std::string& udi,
                          const std::vector<hal::PropertyChange>&) override {
    EXPECT_TRUE(known_.contains(udi)) << udi;
  }

 private:
  hal::DeviceTree& tree_;
  std::set<std::string> known_;
};

struct RandomHardware {
  explicit RandomHardware(unsigned seed) : random(seed) {}

  int Below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(random); }

  /// One slot of a reader, or the card, in some state; nothing: it is not there.
  std::vector<BlockFacts> Disk(int slot) {
    if (Below(4) == 0) return {};
    BlockFacts disk = slot == 3 ? Card() : Stick(std::string("sd") + char('a' + slot), 0, slot);
    disk = OfMedium(disk, static_cast<std::uint64_t>(10 + Below(3)));
    if (auto* usb = std::get_if<UsbChain>(&disk.chain)) usb->device.serial = serial;
    std::vector<BlockFacts> facts = {disk};
    for (int number = 1; number <= 3; ++number) {
      // Few identifiers, so that names clash.
      if (Below(2) == 0) facts.push_back(Partition(disk, number, Below(2) == 0 ? "A" : "B"));
    }
    return facts;
  }

  std::mt19937 random;
  std::string serial = "S";
};

using ModelObject = std::pair<std::string, std::string>;  // sysfs path and UUID or serial number

std::multiset<ModelObject> ModelOf(const hal::DeviceTree& tree) {
  std::multiset<ModelObject> model;
  for (const hal::Device& device : tree.Devices()) {
    const hal::Device* parent = tree.Find(device.Text("info.parent"));
    model.insert({device.Text("linux.sysfs_path"),
                  device.Text("volume.uuid") + " below " +
                      (parent != nullptr ? parent->Text("linux.sysfs_path") : "nothing")});
  }
  return model;
}

TEST(ReconcilerModel, RandomSequencesEndWhereAFreshStartWould) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    RandomHardware hardware(seed);
    hal::DeviceTree tree;
    const Follower follower(tree);
    Reconciler reconciler(tree, [] {});
    std::map<std::string, std::vector<BlockFacts>> present;
    for (int step = 0; step < 60; ++step) {
      const int slot = hardware.Below(4);
      const std::string name = std::to_string(slot);
      present[name] = hardware.Disk(slot);
      reconciler.Show(name, Describe(present[name]));
      hal::DeviceTree fresh;
      Reconciler naive(fresh, [] {});
      for (const auto& [disk, facts] : present) naive.Show(disk, Describe(facts));
      ASSERT_EQ(ModelOf(tree), ModelOf(fresh)) << "seed " << seed << " step " << step;
      ASSERT_EQ(reconciler.Kept().size() + 1, tree.Devices().size());
    }
  }
}

TEST(ReconcilerModel, ARestartAtAnyTimeTellsTheDifferenceOnly) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    RandomHardware hardware(seed);
    hal::DeviceTree before;
    Reconciler old(before, [] {});
    std::map<std::string, std::vector<WantedObject>> wanted;
    for (int slot = 0; slot < 4; ++slot) {
      wanted[std::to_string(slot)] = Describe(hardware.Disk(slot));
      old.Show(std::to_string(slot), wanted[std::to_string(slot)]);
    }
    const std::string changed = std::to_string(hardware.Below(4));
    wanted[changed] = Describe(hardware.Disk(changed[0] - '0'));

    hal::DeviceTree after;
    Reconciler reconciler(after, [] {});
    std::set<std::string> names;
    for (const KeptObject& kept : old.Kept()) names.insert(kept.name);
    reconciler.Restore(old.Kept());
    for (const auto& [disk, objects] : wanted) reconciler.Resemble(objects);
    TreeTape tape(after);
    reconciler.DropLeftovers();
    for (const auto& [disk, objects] : wanted) reconciler.Show(disk, objects);
    for (const std::string& line : tape.Take()) {
      if (line.starts_with("+ ")) {
        EXPECT_TRUE(names.insert(line.substr(2)).second) << seed << line;
      } else if (line.starts_with("- ")) {
        EXPECT_EQ(names.erase(line.substr(2)), 1u) << seed << line;
      }
    }
    std::set<std::string> present;
    for (const KeptObject& kept : reconciler.Kept()) present.insert(kept.name);
    EXPECT_EQ(names, present) << seed;
    old.Show(changed, wanted[changed]);
    EXPECT_EQ(ModelOf(after), ModelOf(before)) << seed;
  }
}

}  // namespace
}  // namespace halkernel
