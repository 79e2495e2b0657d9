#include "volumes/tVoldrake.h"

#include <gtest/gtest.h>

#include "frame/ConfigManager.h"
#include "storage/tHalManager.h"

namespace {

TEST(VoldrakeDeathTest, NeedsTheHardwareServicesClient) {
  ConfigManager config("/dev/null");
  EXPECT_DEATH(tVoldrake(nullptr, &config, 0, "", "", "", "", "", 0),
               "voldrake: tVoldrake:[0-9]+: .*: Assertion `m_pHalManager != 0' failed\\.");
}

TEST(VoldrakeDeathTest, NeedsTheConfiguration) {
  EXPECT_DEATH(tVoldrake(tHalManager::getInstance(), nullptr, 0, "", "", "", "", "", 0),
               "voldrake: tVoldrake:[0-9]+: .*: Assertion `m_pConfigManager != 0' failed\\.");
}

}  // namespace
