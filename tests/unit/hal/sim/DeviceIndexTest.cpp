#include "hal/sim/DeviceIndex.h"

#include <gtest/gtest.h>

namespace {

using halsim::DeviceIndex;
using halsim::RoleMeans;

TEST(DeviceRole, IsMeantByItsTextAndAVolumeByNoNumberToo) {
  const struct {
    const char* named;
    const char* role;
    bool means;
  } kTable[] = {
      {"storage", "storage", true},     {"storage", "storage@1", false},
      {"storage@1", "storage@1", true}, {"volume1", "volume1", true},
      {"volume1", "volume12", false},   {"volume", "volume1", true},
      {"volume", "volume12", true},     {"volume", "volume2@1", true},
      {"volume@1", "volume2@1", true},  {"volume@1", "volume2@12", false},
      {"volume@1", "volume2", false},   {"volume2", "volume2@1", false},
      {"volume", "storage", false},     {"vol", "volume1", false},
      {"", "volume1", false},
  };
  for (const auto& [named, role, means] : kTable) {
    EXPECT_EQ(RoleMeans(named, role), means) << named << " " << role;
  }
}

TEST(DeviceIndex, KnowsWhatIsInIt) {
  DeviceIndex index;
  EXPECT_EQ(index.Of("/a").role, "");
  index.Add("/a", {"stick", "volume1", true});
  index.Add("/b", {"card", "volume2", false});
  EXPECT_EQ(index.Of("/a").plugged, "stick");
  EXPECT_TRUE(index.Of("/a").writeProtected);
  EXPECT_TRUE(index.HasRole("stick", "volume1"));
  EXPECT_FALSE(index.HasRole("stick", "volume2"));
  EXPECT_FALSE(index.HasRole("card", "volume1"));
  EXPECT_FALSE(index.HasRole("stick", "volume"));
  index.Add("/a", {"other", "storage", false});
  EXPECT_EQ(index.Of("/a").plugged, "other");
  index.Remove("/a");
  EXPECT_EQ(index.Of("/a").plugged, "");
  EXPECT_FALSE(index.HasRole("other", "storage"));
}

}  // namespace
