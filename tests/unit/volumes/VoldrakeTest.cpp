#include "volumes/tVoldrake.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>

#include "frame/ConfigManager.h"
#include "storage/tHalManager.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"
#include "support/VoldrakeWorld.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using tLines = std::vector<std::string>;

constexpr const char* kMounted = "volume.is_mounted";
constexpr const char* kReadOnly = "volume.is_mounted_read_only";
constexpr const char* kConfiguration =
    "name=Chart Port\nusbid=1-1_3\n"
    "name=x\nignore=true\nignoreDevice=/dev/sdi1\n"
    "name=end\n";

/// A stick that is not mounted.
HalVolumeInfo Stick(const std::string& udi = "/volume_a", const std::string& node = "sda1") {
  HalVolumeInfo info;
  info.VolumeId = udi;
  info.BusType = "usb";
  info.USBHub = "1-1_1--1_0";
  info.FileSystemType = "vfat";
  info.BlockDevice = "/dev/" + node;
  return info;
}

HalVolumeInfo Mounted(HalVolumeInfo info, bool readOnly = false) {
  info.IsMounted = true;
  info.MountPoint = "/media/" + info.BlockDevice.substr(5);
  info.ReadOnly = readOnly;
  return info;
}

HalVolumeInfo With(HalVolumeInfo info, std::string HalVolumeInfo::*field, const char* text) {
  info.*field = text;
  return info;
}

/// What is done and logged when `info`, which is mounted, is entered into the list.
tLines Registration(const HalVolumeInfo& info, const std::string& name = "USB Mass Storage",
                    const std::string& identity = " [] []") {
  const std::string mode = info.ReadOnly ? " ro" : " rw";
  const std::string texts = mode + " [" + name + "] [" + info.Cid + "]" + identity;
  tLines lines{"I > share volume " + info.MountPoint + texts, "I > link " + info.MountPoint + " 2",
               "I > tell arrival " + info.MountPoint + texts, "I " + std::string(75, '-')};
  for (const std::string& line : DescribeVolume(info)) {
    lines.push_back("I _PrintHalVolumeInfo: " + line);
  }
  return lines;
}

tLines Record(const HalVolumeInfo& info) {
  const tLines lines = Registration(info);
  return {lines.begin() + 3, lines.end()};
}

tLines Joined(std::initializer_list<tLines> parts) {
  tLines all;
  for (const tLines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// A daemon in a world of its own. A line of its log is the first letter of its level and the text.
class Voldrake : public testing::Test {
 protected:
  void SetUp() override { World() = {}; }

  void Start(const std::string& internalShare = "") {
    m_Config = std::make_unique<ConfigManager>(m_Directory.Write("conf", kConfiguration));
    static_cast<void>(Take());
    m_Voldrake = std::make_unique<tVoldrake>(
        tHalManager::getInstance(), m_Config.get(), 1, internalShare, "00:11:22:33:44:55",
        m_Directory.Path("content"), m_Directory.Path("serial"), "hawk", 2);
    m_Started = Take();
  }

  /// What was logged and done since the last call.
  tLines Take() {
    tLines lines;
    const std::vector<tLogLine> all = m_Log.Lines();
    for (; m_Taken < all.size(); ++m_Taken) {
      lines.push_back(std::string(1, "?EWID"[all[m_Taken].level]) + " " + all[m_Taken].message);
    }
    return lines;
  }

  /// The scan's lines of the start-up, without those of every start.
  tLines Scanned(const std::string& internalShare = "") {
    Start(internalShare);
    const auto found = std::find(m_Started.begin(), m_Started.end(), "I > find volume");
    return {found == m_Started.end() ? found : found + 1, m_Started.end()};
  }

  tLines Added(const char* udi) {
    m_Voldrake->HalManagerDeviceAddedCb(udi);
    return Take();
  }

  tLines Removed(const char* udi) {
    m_Voldrake->HalManagerDeviceRemovedCb(udi);
    return Take();
  }

  tLines Changed(const char* udi, const char* key) {
    m_Voldrake->HalManagerPropertyChangedCb(udi, key);
    return Take();
  }

  tLines Signalled(int number) {
    EXPECT_TRUE(m_Voldrake->SignalAction(number));
    return Take();
  }

  /// Enters sticks into the list, as "/volume_a" at "/media/sda1" and so on.
  void Register(const std::string& letters) {
    for (const char letter : letters) {
      const std::string udi = std::string("/volume_") + letter;
      World().volumes[udi] = {Mounted(Stick(udi, std::string("sd") + letter + "1"))};
      World().flags[{udi, kMounted}] = true;
      static_cast<void>(Changed(udi.c_str(), kMounted));
    }
  }

  /// The mount points that are reported again on SIGUSR1: the list, in its order.
  std::string List() {
    std::string letters;
    for (const std::string& line : Signalled(SIGUSR1)) {
      constexpr std::string_view kTold = "I > tell arrival /media/sd";
      if (line.starts_with(kTold)) letters += line[kTold.size()];
    }
    return letters;
  }

  const tTemporaryDirectory m_Directory;
  const tCapturedLog m_Log;
  size_t m_Taken = 0;
  tLines m_Started;
  std::unique_ptr<ConfigManager> m_Config;
  std::unique_ptr<tVoldrake> m_Voldrake;
};

// ---- Arrival

TEST_F(Voldrake, AnAddedDeviceIsLeftAloneMountedOrRegistered) {
  const HalVolumeInfo card = [] {
    HalVolumeInfo info = Stick("/volume_a", "mmcblk0p1");
    info.BusType = "mmc";
    info.FileSystemType = "ext3";
    return info;
  }();
  const struct {
    const char* what;
    const char* udi;
    std::optional<HalVolumeInfo> info;
    tLines lines;  // behind "_DeviceAdded: UDI"
  } cases[] = {
      {"no volume", "/storage_a", Stick("/storage_a"), {"D _DeviceAdded: Invalid Volume String"}},
      {"cannot be described",
       "/volume_a",
       std::nullopt,
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a"}},
      {"ignored",
       "/volume_a",
       Stick("/volume_a", "sdi1"),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a",
        "I _IsInExclusionList: /dev/sdi1"}},
      {"ignored and mounted",
       "/volume_a",
       Mounted(Stick("/volume_a", "sdi1")),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a",
        "I _IsInExclusionList: /dev/sdi1"}},
      {"on another bus",
       "/volume_a",
       With(Stick(), &HalVolumeInfo::BusType, ""),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a"}},
      {"not mounted",
       "/volume_a",
       Stick(),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a", "I > mount /volume_a [sda1] vfat",
        "I _DeviceAdded: MountVolume success: /volume_a sda1 vfat"}},
      {"a card",
       "/volume_a",
       card,
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a",
        "I > mount /volume_a [mmcblk0p1] ext3",
        "I _DeviceAdded: MountVolume success: /volume_a mmcblk0p1 ext3"}},
      {"no name to be had",
       "/volume_a",
       Stick("/volume_a", ""),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a", "I > mount /volume_a [] vfat",
        "I _DeviceAdded: MountVolume success: /volume_a  vfat"}},
      {"control characters",
       "/volume_a",
       With(Stick("/volume_a", "s\nd"), &HalVolumeInfo::FileSystemType, "vf\tat"),
       {"I _DeviceAdded: Volume Found", "I > describe /volume_a", "I > mount /volume_a [s?d] vf?at",
        "I _DeviceAdded: MountVolume success: /volume_a s?d vf?at"}},
      {"mounted", "/volume_a", Mounted(Stick()),
       Joined({{"I _DeviceAdded: Volume Found", "I > describe /volume_a",
                "I _DeviceMounted: /volume_a", "I > describe /volume_a"},
               Registration(Mounted(Stick()))})},
  };
  Start();
  for (const auto& [what, udi, info, lines] : cases) {
    World() = {};
    World().volumes[udi] = {info};
    EXPECT_THAT(Added(udi),
                ElementsAreArray(Joined({{std::string("D _DeviceAdded: ") + udi}, lines})))
        << what;
    static_cast<void>(Removed(udi));
  }
}

TEST_F(Voldrake, ARefusedMountIsLoggedAndNotTriedAgain) {
  Start();
  World().volumes["/volume_a"] = {Stick()};
  World().refusesMounts = true;
  EXPECT_THAT(Added("/volume_a"),
              ElementsAre("D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                          "I > describe /volume_a", "I > mount /volume_a [sda1] vfat",
                          "E _DeviceAdded: MountVolume failed: /volume_a sda1 vfat"));
}

TEST_F(Voldrake, ALeftoverIsDeletedBeforeTheMountAndOneThatStaysIsWarnedOf) {
  Start();
  World().volumes["/volume_a"] = {Stick()};
  World().leftovers = {"sda1"};
  EXPECT_THAT(Added("/volume_a"),
              ElementsAre("D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                          "I > describe /volume_a", "I > delete /media/sda1",
                          "I > mount /volume_a [sda1] vfat",
                          "I _DeviceAdded: MountVolume success: /volume_a sda1 vfat"));
  World().leftoversStay = true;
  EXPECT_THAT(
      Added("/volume_a"),
      ElementsAre("D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                  "I > describe /volume_a", "I > delete /media/sda1",
                  "W DeviceAdded: failed to remove /media/sda1", "I > mount /volume_a [sda1] vfat",
                  "I _DeviceAdded: MountVolume success: /volume_a sda1 vfat"));
}

using VoldrakeDeathTest = Voldrake;

TEST_F(VoldrakeDeathTest, ADeviceWithoutNameIsAProgrammingErrorOnArrivalAndInTheScan) {
  Start();
  const HalVolumeInfo nameless = With(Stick(), &HalVolumeInfo::BlockDevice, "sda1");
  World().volumes["/volume_a"] = {nameless};
  EXPECT_DEATH(m_Voldrake->HalManagerDeviceAddedCb("/volume_a"),
               "voldrake: Arrival:[0-9]+: .*_DeviceAdded.*: Assertion `RetVal == true' failed\\.");
  EXPECT_THAT(Take(), testing::Contains("E _DeviceAdded: GetNextMountPointName failed"));
  World().found = {"/volume_a"};
  EXPECT_DEATH(
      m_Voldrake->SignalAction(SIGUSR2),
      "voldrake: ManualScan:[0-9]+: .*_ScanVolume.*: Assertion `RetVal == true' failed\\.");
}

TEST_F(VoldrakeDeathTest, NeedsTheHardwareServicesClient) {
  ConfigManager config("/dev/null");
  EXPECT_DEATH(tVoldrake(nullptr, &config, 0, "", "", "", "", "", 0),
               "voldrake: tVoldrake:[0-9]+: .*: Assertion `m_pHalManager != 0' failed\\.");
}

TEST_F(VoldrakeDeathTest, NeedsTheConfiguration) {
  EXPECT_DEATH(tVoldrake(tHalManager::getInstance(), nullptr, 0, "", "", "", "", "", 0),
               "voldrake: tVoldrake:[0-9]+: .*: Assertion `m_pConfigManager != 0' failed\\.");
}

// ---- What changed properties mean

TEST_F(Voldrake, OnlyAReadableMountStateStartsAnything) {
  const std::string query = "I > query /volume_a ";
  const tLines mounted{"I _DeviceMounted: /volume_a", "I > describe /volume_a",
                       "E _DeviceMounted: Failed to get Volume Info"};
  const struct {
    const char* key;
    std::optional<bool> value;
    tLines lines;
  } cases[] = {
      {kMounted, true, Joined({{query + kMounted}, mounted})},
      {kMounted, false, {query + kMounted}},
      {kMounted, std::nullopt, {query + kMounted}},
      {kReadOnly,
       true,
       {query + kReadOnly, "D HalManagerPropertyChangedCb MountedRo 1 1",
        "I _DeviceReMountedRo: /volume_a", "I > describe /volume_a"}},
      {kReadOnly,
       false,
       {query + kReadOnly, "D HalManagerPropertyChangedCb MountedRo 0 1",
        "I _DeviceReMountedRw: /volume_a"}},
      {kReadOnly, std::nullopt, {query + kReadOnly, "D HalManagerPropertyChangedCb MountedRo 0 0"}},
      {"volume.label", true, {}},
      {"volume.mount_point", true, {}},
      {"volume.is_mounte", true, {}},
      {"volume.is_mounted ", true, {}},
      {"Volume.is_mounted", true, {}},
      {"volume.is_mounted_read_only_", true, {}},
      {"", true, {}},
  };
  Start();
  for (const auto& [key, value, lines] : cases) {
    World() = {};
    if (value) World().flags[{"/volume_a", key}] = *value;
    EXPECT_THAT(Changed("/volume_a", key), ElementsAreArray(lines)) << key;
  }
}

TEST_F(Voldrake, AVolumeThatIsNoLongerMountedIsRemovedFromTheList) {
  Start();
  Register("ab");
  World().flags[{"/volume_a", kMounted}] = false;
  EXPECT_THAT(
      Changed("/volume_a", kMounted),
      ElementsAre("I > query /volume_a volume.is_mounted",
                  "I _DeviceRemoved: Found Volume in list: ", "I > tell removal /media/sda1",
                  "I > unlink [link to /media/sda1]", "I > unshare /media/sda1"));
  EXPECT_EQ(List(), "b");
}

// ---- Registration

TEST_F(Voldrake, AMountedVolumeIsRegisteredOnce) {
  Start();
  World().volumes["/volume_a"] = {Mounted(Stick())};
  World().flags[{"/volume_a", kMounted}] = true;
  const tLines looked{"I > query /volume_a volume.is_mounted", "I _DeviceMounted: /volume_a",
                      "I > describe /volume_a"};
  EXPECT_THAT(Changed("/volume_a", kMounted),
              ElementsAreArray(Joined({looked, Registration(Mounted(Stick()))})));
  EXPECT_THAT(
      Changed("/volume_a", kMounted),
      ElementsAreArray(Joined({looked, {"D _AddMountPoint: Volume already in list: /volume_a"}})));
  EXPECT_THAT(Added("/volume_a"), testing::Contains("D _AddMountPoint: Volume already in list: "
                                                    "/volume_a"));
  EXPECT_EQ(List(), "a");
}

TEST_F(Voldrake, VolumeIdsAreComparedWithCase) {
  Start();
  Register("aA");
  EXPECT_EQ(List(), "aA");
}

TEST_F(Voldrake, AVolumeThatIsUnmountedMeanwhileIsNotRegistered) {
  const HalVolumeInfo nowhere = With(Mounted(Stick()), &HalVolumeInfo::MountPoint, "");
  HalVolumeInfo unmounted = Mounted(Stick());
  unmounted.IsMounted = false;
  Start();
  for (const HalVolumeInfo& now : {Stick(), nowhere, unmounted}) {
    World().volumes["/volume_a"] = {Mounted(Stick()), now};
    EXPECT_THAT(
        Added("/volume_a"),
        ElementsAre("D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                    "I > describe /volume_a", "I _DeviceMounted: /volume_a",
                    "I > describe /volume_a", "D _AddMountPoint: Volume not mounted: /volume_a"));
  }
  World().volumes["/volume_a"] = {Mounted(Stick()), std::nullopt};
  EXPECT_THAT(Added("/volume_a"),
              ElementsAre("D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                          "I > describe /volume_a", "I _DeviceMounted: /volume_a",
                          "I > describe /volume_a", "E _DeviceMounted: Failed to get Volume Info"));
  EXPECT_EQ(List(), "");
}

TEST_F(Voldrake, AVolumeHasTheNameOfItsPort) {
  Start();
  const HalVolumeInfo stick = With(Mounted(Stick()), &HalVolumeInfo::USBHub, "1-1_3--1\n0");
  World().volumes["/volume_a"] = {stick};
  EXPECT_THAT(
      Added("/volume_a"),
      ElementsAreArray(Joined(
          {{"D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found", "I > describe /volume_a",
            "I _DeviceMounted: /volume_a", "I > describe /volume_a",
            "I _DeviceMounted: HalVolumeInfo.USBHub 1-1_3--1?0 matches 1-1_3"},
           Registration(stick, " - Chart Port")})));
}

TEST_F(Voldrake, ACardInAReaderHasTheIdentityThatTheReaderGives) {
  Start();
  // There is no such device, so the reader's answer is zeros.
  HalVolumeInfo card = With(Mounted(Stick()), &HalVolumeInfo::BlockDevice, "/nowhere/dev/sda1");
  card.VendorId = 0x0424;
  card.ProductId = 0x4040;
  World().volumes["/volume_a"] = {card};
  const HalVolumeInfo asked = With(card, &HalVolumeInfo::Cid, "00000000000000000000000000000000");
  const tLines reader{
      "I _DeviceMounted: HalVolumeInfo.VendorId/ProductId matches SMSC support for"
      " id 1-1_3",
      "I Unable to read serial number from /nowhere/dev/sda1"};
  EXPECT_THAT(Added("/volume_a"),
              ElementsAreArray(Joined({{"D _DeviceAdded: /volume_a", "I _DeviceAdded: Volume Found",
                                        "I > describe /volume_a", "I _DeviceMounted: /volume_a",
                                        "I > describe /volume_a"},
                                       reader,
                                       Registration(asked, "KR20 - 1")})));
  // Turned read-only, it keeps the identity and does without the name.
  static_cast<void>(Removed("/volume_a"));
  card.ReadOnly = true;
  World().volumes["/volume_a"] = {card};
  World().flags[{"/volume_a", kReadOnly}] = true;
  HalVolumeInfo readOnly = asked;
  readOnly.ReadOnly = true;
  EXPECT_THAT(
      Changed("/volume_a", kReadOnly),
      ElementsAreArray(Joined({{"I > query /volume_a volume.is_mounted_read_only",
                                "D HalManagerPropertyChangedCb MountedRo 1 1",
                                "I _DeviceReMountedRo: /volume_a", "I > describe /volume_a"},
                               reader,
                               Registration(readOnly)})));
}

TEST_F(Voldrake, TheIdentityTextsAreReadBeforeAVolumeIsRegisteredAndWhenItIsAlready) {
  m_Directory.Write("content", "C-1\n");
  Start();
  m_Directory.Write("serial", "S-1\n");
  World().volumes["/volume_a"] = {Mounted(Stick())};
  const tLines lines = Added("/volume_a");
  const tLines registration = Registration(Mounted(Stick()), "USB Mass Storage", " [C-1] [S-1]");
  EXPECT_THAT(tLines(lines.end() - static_cast<long>(registration.size()), lines.end()),
              ElementsAreArray(registration));
  ASSERT_EQ(unlink(m_Directory.Path("content").c_str()), 0);
  ASSERT_EQ(unlink(m_Directory.Path("serial").c_str()), 0);
  static_cast<void>(Added("/volume_a"));
  EXPECT_THAT(Signalled(SIGUSR1),
              testing::Contains("I > tell arrival /media/sda1 rw [USB Mass Storage] [] [] []"));
}

// ---- Remounts

TEST_F(Voldrake, AReadOnlyRemountRegistersWithoutTheConfiguredName) {
  const tLines looked{"I > query /volume_a volume.is_mounted_read_only",
                      "D HalManagerPropertyChangedCb MountedRo 1 1",
                      "I _DeviceReMountedRo: /volume_a", "I > describe /volume_a"};
  const HalVolumeInfo named = With(Mounted(Stick(), true), &HalVolumeInfo::USBHub, "1-1_3--1_0");
  const struct {
    const char* what;
    std::optional<HalVolumeInfo> info;
    tLines lines;
  } cases[] = {
      {"cannot be described", std::nullopt, {}},
      {"ignored", Mounted(Stick("/volume_a", "sdi1"), true), {"I _IsInExclusionList: /dev/sdi1"}},
      {"on another bus", With(Mounted(Stick(), true), &HalVolumeInfo::BusType, "scsi"), {}},
      {"unmounted", Stick(), {"D _AddMountPoint: Volume not mounted: /volume_a"}},
      {"mounted", Mounted(Stick(), true), Registration(Mounted(Stick(), true))},
      {"named", named,
       Joined({{"I _DeviceMounted: HalVolumeInfo.USBHub 1-1_3--1_0 matches 1-1_3"},
               Registration(named)})},
  };
  Start();
  for (const auto& [what, info, lines] : cases) {
    World() = {};
    World().flags[{"/volume_a", kReadOnly}] = true;
    World().volumes["/volume_a"] = {info};
    EXPECT_THAT(Changed("/volume_a", kReadOnly), ElementsAreArray(Joined({looked, lines}))) << what;
    static_cast<void>(Removed("/volume_a"));
  }
}

TEST_F(Voldrake, ARemountKeepsARegisteredVolumeAsItIs) {
  Start();
  Register("a");
  World().volumes["/volume_a"] = {Mounted(Stick(), true)};
  World().flags[{"/volume_a", kReadOnly}] = true;
  EXPECT_THAT(Changed("/volume_a", kReadOnly),
              testing::Contains("D _AddMountPoint: Volume already in list: /volume_a"));
  EXPECT_THAT(Signalled(SIGUSR1),
              testing::Contains("I > tell arrival /media/sda1 rw [USB Mass Storage] [] [] []"));
}

// ---- Removal

TEST_F(Voldrake, ARemovalTakesItsStepsInOrderAndOnlyOnce) {
  Start();
  Register("abc");
  for (const char* stranger : {"/volume_d", "/volume_", "/volume_bb", "/volume_B", ""}) {
    EXPECT_THAT(Removed(stranger), IsEmpty()) << stranger;
  }
  EXPECT_THAT(
      Removed("/volume_b"),
      ElementsAre("I _DeviceRemoved: Found Volume in list: ", "I > tell removal /media/sdb1",
                  "I > unlink [link to /media/sdb1]", "I > unshare /media/sdb1"));
  EXPECT_THAT(Removed("/volume_b"), IsEmpty());
  EXPECT_EQ(List(), "ac");
}

TEST_F(Voldrake, AVolumeWithoutLinkTakesNoneAway) {
  Start();
  World().refusesLinks = true;
  Register("a");
  EXPECT_THAT(Removed("/volume_a"), testing::Contains("I > unlink []"));
}

TEST_F(Voldrake, OneSweepRemovesEveryOtherVolume) {
  const struct {
    const char* registered;
    const char* gone;
    const char* kept;
  } cases[] = {{"", "", ""},          {"a", "a", ""},       {"ab", "a", "b"},
               {"abc", "ac", "b"},    {"abcd", "ac", "bd"}, {"abcde", "ace", "bd"},
               {"edcba", "eca", "db"}};
  for (const auto& [registered, gone, kept] : cases) {
    World() = {};
    Start();
    Register(registered);
    tLines lines{"I SIGUSR2: Simulating removing/inserting SD card", "I _UnmountAll()"};
    for (const char letter : std::string(gone)) {
      const std::string path = std::string("/media/sd") + letter + "1";
      for (const std::string& line :
           {std::string("I _DeviceRemoved: Found Volume in list: "), "I > tell removal " + path,
            "I > unlink [link to " + path + "]", "I > unshare " + path}) {
        lines.push_back(line);
      }
    }
    for (const char* line :
         {"I _ManualScan()", "D _ManualScan:", "I > clear links in /media", "I > find volume"}) {
      lines.emplace_back(line);
    }
    EXPECT_THAT(Signalled(SIGUSR2), ElementsAreArray(lines)) << registered;
    EXPECT_EQ(List(), kept) << registered;
    m_Voldrake.reset();
  }
}

TEST_F(Voldrake, AReinsertionBringsBackWhatTheSweepTook) {
  Start();
  Register("abc");
  World().found = {"/volume_a", "/volume_b", "/volume_c"};
  static_cast<void>(Signalled(SIGUSR2));
  EXPECT_EQ(List(), "bac");
}

// ---- The scan

TEST_F(Voldrake, AScanLeavesAloneMountsOrRegisters) {
  const tLines looked{"I _ManualScan: found Volume", "I > describe /volume_a"};
  const struct {
    const char* what;
    std::optional<HalVolumeInfo> info;
    tLines lines;
  } cases[] = {
      {"cannot be described", std::nullopt, looked},
      {"ignored", Stick("/volume_a", "sdi1"),
       Joined({looked,
               Record(Stick("/volume_a", "sdi1")),
               {"I _IsInExclusionList: /dev/sdi1", "I _ManualScan: Excluded"}})},
      {"on another bus", With(Stick(), &HalVolumeInfo::BusType, ""),
       Joined({looked,
               Record(With(Stick(), &HalVolumeInfo::BusType, "")),
               {"I _ManualScan: Excluded"}})},
      {"not mounted", Stick(),
       Joined({looked, Record(Stick()), {"I > mount /volume_a [sda1] vfat"}})},
      {"mounted", Mounted(Stick()),
       Joined({looked,
               Record(Mounted(Stick())),
               {"I _DeviceMounted: /volume_a", "I > describe /volume_a"},
               Registration(Mounted(Stick()))})},
  };
  for (const auto& [what, info, lines] : cases) {
    for (const bool refuses : {false, true}) {
      World() = {};
      World().refusesMounts = refuses;
      World().found = {"/volume_a"};
      World().volumes["/volume_a"] = {info};
      EXPECT_THAT(Scanned(), ElementsAreArray(Joined({{"D /volume_a"}, lines}))) << what;
      m_Voldrake.reset();
    }
  }
}

TEST_F(Voldrake, AScanPassesOverWhatIsNoVolumeAndGoesOn) {
  World().found = {"/storage\n_a", "", "/volume_a", "/volume_b"};
  World().volumes["/volume_b"] = {Stick("/volume_b", "sdb1")};
  EXPECT_THAT(Scanned(),
              ElementsAreArray(
                  Joined({{"D /storage?_a", "D _ManualScan: Invalid Volume String", "D ",
                           "D _ManualScan: Invalid Volume String", "D /volume_a",
                           "I _ManualScan: found Volume", "I > describe /volume_a", "D /volume_b",
                           "I _ManualScan: found Volume", "I > describe /volume_b"},
                          Record(Stick("/volume_b", "sdb1")),
                          {"I > mount /volume_b [sdb1] vfat"}})));
}

TEST_F(Voldrake, AScanDeletesLeftovers) {
  World().found = {"/volume_a"};
  World().volumes["/volume_a"] = {Stick()};
  World().leftovers = {"sda1"};
  World().leftoversStay = true;
  const tLines lines = Scanned();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_THAT(tLines(lines.end() - 3, lines.end()),
              ElementsAre("I > delete /media/sda1", "W ManualScan: failed to remove /media/sda1",
                          "I > mount /volume_a [sda1] vfat"));
}

TEST_F(Voldrake, TheInternalDiskIsSharedBehindTheVolumesByEachScan) {
  m_Directory.Write("content", "C-1\n");
  m_Directory.Write("serial", "S-1\n");
  const std::string shared = "I > share disk /srv/charts ro [Internal HD Charts] [] [C-1] [S-1]";
  World().found = {"/volume_a"};
  World().volumes["/volume_a"] = {Stick()};
  EXPECT_THAT(Scanned("/srv/charts"),
              ElementsAreArray(
                  Joined({{"D /volume_a", "I _ManualScan: found Volume", "I > describe /volume_a"},
                          Record(Stick()),
                          {"I > mount /volume_a [sda1] vfat", shared}})));
  EXPECT_EQ(Signalled(SIGUSR2).back(), shared);
}

// ---- Signals

TEST_F(Voldrake, RepublishingTellsTheListAgainAndNothingElse) {
  m_Directory.Write("content", "C-1\n");
  Start();
  Register("ai");
  World().volumes["/volume_c"] = {
      With(Mounted(Stick("/volume_c", "sdc1"), true), &HalVolumeInfo::USBHub, "1-1_3\n")};
  static_cast<void>(Added("/volume_c"));
  ASSERT_EQ(unlink(m_Directory.Path("content").c_str()), 0);
  EXPECT_THAT(
      Signalled(SIGUSR1),
      ElementsAre("I SIGUSR1: Republishing all mounted FS to VessaApp", "I > forget messages",
                  "I > tell arrival /media/sda1 rw [USB Mass Storage] [] [C-1] []",
                  R"(I Republish: "USB Mass Storage" --> /dev/sda1:/media/sda1)",
                  "I _IsInExclusionList: /dev/sdi1",
                  "I _DeviceMounted: HalVolumeInfo.USBHub 1-1_3? matches 1-1_3",
                  "I > tell arrival /media/sdc1 ro [ - Chart Port] [] [C-1] []",
                  R"(I Republish: " - Chart Port" --> /dev/sdc1:/media/sdc1)"));
}

TEST_F(Voldrake, OtherSignalsAreNotItsOwn) {
  Start();
  for (const int number : {SIGHUP, SIGTERM, SIGINT, 0}) {
    EXPECT_FALSE(m_Voldrake->SignalAction(number)) << number;
  }
  EXPECT_THAT(Take(), IsEmpty());
}

// ---- Life

TEST_F(Voldrake, StartsSharingBeforeTheScanAndEndsInOrder) {
  Start();
  EXPECT_THAT(m_Started, ElementsAre("I > listen to other units [00:11:22:33:44:55]", "I > publish",
                                     "I _ManualScan()", "D _ManualScan:",
                                     "I > clear links in /media", "I > find volume"));
  m_Voldrake->Stop();
  EXPECT_THAT(Take(), ElementsAre("I > stop publishing and wait", "I > stop listening"));
  m_Voldrake.reset();
  EXPECT_THAT(Take(), ElementsAre("I > stop listening", "I > forget other units",
                                  "I > deliver and stop messages"));
}

TEST_F(Voldrake, HandsThePeersAddressToThePublisher) {
  Start();
  m_Voldrake->OnPeerFound("169.254.3.7");
  EXPECT_THAT(Take(), ElementsAre("I > peer 169.254.3.7"));
}

}  // namespace
