#include "storage/tHalManager.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "frame/Settings.h"
#include "storage/HalVolumeInfo.h"
#include "support/CapturedLog.h"

using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

const tLogLine kClosed{kLogWarning, "HAL: Connection - closed"};

TEST(HalManager, IsOneObject) {
  EXPECT_EQ(tHalManager::getInstance(), tHalManager::getInstance());
}

TEST(HalManager, KnowsAVolumeByItsObjectPath) {
  const struct {
    const char* udi;
    bool volume;
  } cases[] = {
      {"/org/freedesktop/Hal/devices/volume_uuid_4A3B_1C2D", true},
      {"/org/freedesktop/Hal/devices/volume", true},
      {"x/org/freedesktop/Hal/devices/volume", true},
      {"/org/freedesktop/Hal/devices/storage_serial_1", false},
      {"/org/freedesktop/Hal/devices/Volume", false},
      {"/org/freedesktop/Hal/devices/volum", false},
      {"", false},
  };
  for (const auto& [udi, volume] : cases) {
    EXPECT_EQ(tHalManager::getInstance()->isVolumeUdi(udi), volume) << udi;
  }
}

TEST(HalManagerDeathTest, NeedsAReceiver) {
  EXPECT_DEATH(tHalManager::getInstance()->InstallCallback(nullptr),
               "voldrake: tHalManager:[0-9]+: .*InstallCallback.*: "
               "Assertion `pCallback != 0' failed\\.");
}

TEST(HalManagerWithoutConnection, AnswersEveryQueryWithNothing) {
  const tCapturedLog log;
  tHalManager* const manager = tHalManager::getInstance();
  bool ok = true;
  EXPECT_EQ(manager->propertyInt("/d", "k", ok), 0);
  EXPECT_FALSE(ok);
  ok = true;
  EXPECT_FALSE(manager->propertyBool("/d", "k", ok));
  EXPECT_FALSE(ok);
  ok = true;
  EXPECT_EQ(manager->propertyString("/d", "k", ok), "");
  EXPECT_FALSE(ok);
  ok = true;
  EXPECT_EQ(manager->propertyIntInherited("/d", "k", ok), 0);
  EXPECT_FALSE(ok);
  EXPECT_THAT(manager->findDeviceByCapability("volume"), SizeIs(0));
  EXPECT_FALSE(manager->mountVolume("/d", "sda1", "vfat"));
  EXPECT_FALSE(manager->remountVolume("/d", "sda1", "vfat", true));
  HalVolumeInfo info;
  info.VolumeId = "/d";
  EXPECT_FALSE(manager->GetVolumeInfo(info));
  EXPECT_THAT(log.Lines(), Contains(kClosed));
}

TEST(HalManagerWithoutConnection, ShowsMountOptionsOnlyOfACallThatWasMade) {
  gVfatMountOpts = "utf8";
  const tCapturedLog log;
  EXPECT_FALSE(tHalManager::getInstance()->mountVolume("/d", "sda1", "vfat"));
  gVfatMountOpts = nullptr;
  EXPECT_THAT(log.Lines(), ElementsAre(kClosed));
}

TEST(HalManagerWithoutConnection, HasNothingToFree) {
  const tCapturedLog log;
  EXPECT_FALSE(tHalManager::getInstance()->freeHal());
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogDebug, "freeHal()"}, kClosed));
}

TEST(HalManagerWithoutBus, ReportsWhyItCannotConnect) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
  const tCapturedLog log;
  EXPECT_FALSE(tHalManager::getInstance()->initHal());
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  ASSERT_THAT(log.Lines(), SizeIs(2));
  EXPECT_EQ(log.Lines()[0], (tLogLine{kLogDebug, "initHal()"}));
  EXPECT_EQ(log.Lines()[1].level, kLogError);
  EXPECT_THAT(log.Lines()[1].message, testing::StartsWith("org.freedesktop.DBus.Error."));
}

}  // namespace
