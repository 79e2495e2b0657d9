#include "volumes/Reports.h"

#include <gtest/gtest.h>

#include "sharing/NfsData.h"
#include "storage/HalVolumeInfo.h"
#include "support/NfsRootSetting.h"

namespace {

constexpr const char* kCid = "0353445355303847802A5B1C4A00F3D1";

TEST(Reports, OfALocalVolumeCallItACardWhenItHasACid) {
  const struct {
    const char* cid;
    bool readOnly;
    bool memoryCard;
  } cases[] = {{"", false, false}, {"", true, false}, {kCid, false, true}, {kCid, true, true}};
  for (const auto& [cid, readOnly, memoryCard] : cases) {
    HalVolumeInfo info;
    info.Cid = cid;
    info.ReadOnly = readOnly;
    info.MountPoint = "/media/sda1";
    const DataSourceInfo arrival = ArrivalOf(info, "USB Mass Storage", "content", "serial");
    EXPECT_TRUE(arrival.arrival);
    EXPECT_EQ(arrival.memoryCard, memoryCard);
    EXPECT_FALSE(arrival.fixed);
    EXPECT_FALSE(arrival.remote);
    EXPECT_EQ(arrival.readOnly, readOnly);
    EXPECT_EQ(arrival.path, "/media/sda1");
    EXPECT_EQ(arrival.friendlyName, "USB Mass Storage");
    EXPECT_EQ(arrival.key, cid);
    EXPECT_EQ(arrival.contentId, "content");
    EXPECT_EQ(arrival.serialNumber, "serial");
  }
}

TEST(Reports, OfASharePassOnWhatThePeerSaysAndNobodyElse) {
  const struct {
    bool fromPeer;
    const char* key;
    bool readOnly;
    bool saysCard;
    bool saysRemote;
    bool saysReadOnly;
  } cases[] = {
      {true, kCid, false, true, false, false}, {true, kCid, true, true, false, true},
      {true, "", false, false, false, false},  {true, "", true, false, false, true},
      {false, kCid, false, true, true, true},  {false, kCid, true, true, true, true},
      {false, "", false, true, true, true},    {false, "", true, true, true, true},
  };
  for (const auto& [fromPeer, key, readOnly, saysCard, saysRemote, saysReadOnly] : cases) {
    NFS_DATA_T share;
    share.path = "169.254.3.7:/media/sda1";
    share.fromPeer = fromPeer;
    share.key = key;
    share.readOnly = readOnly;
    share.friendlyName = "A stick";
    const DataSourceInfo arrival = ArrivalOf(share, "/mnt/169.254.3.7:-media-sda1");
    EXPECT_TRUE(arrival.arrival);
    EXPECT_EQ(arrival.memoryCard, saysCard) << fromPeer << key << readOnly;
    EXPECT_FALSE(arrival.fixed);
    EXPECT_EQ(arrival.remote, saysRemote) << fromPeer << key << readOnly;
    EXPECT_EQ(arrival.readOnly, saysReadOnly) << fromPeer << key << readOnly;
    EXPECT_EQ(arrival.path, "/mnt/169.254.3.7:-media-sda1");
    EXPECT_EQ(arrival.friendlyName, "A stick");
    EXPECT_EQ(arrival.key, key);
    EXPECT_EQ(arrival.contentId, "");
    EXPECT_EQ(arrival.serialNumber, "");
  }
}

TEST(Reports, OfARemovalSayNothingButThePath) {
  const DataSourceInfo removal = RemovalOf("/media/sda1");
  EXPECT_EQ(removal.path, "/media/sda1");
  EXPECT_FALSE(removal.arrival || removal.memoryCard || removal.fixed || removal.remote ||
               removal.readOnly);
  EXPECT_EQ(removal.friendlyName + removal.key + removal.contentId + removal.serialNumber, "");
}

TEST(Reports, ShowThePathAsTheApplicationSeesIt) {
  const tNfsRootSetting root("/srv/nfs/");
  HalVolumeInfo info;
  info.MountPoint = "/srv/nfs/sda1";
  EXPECT_EQ(ArrivalOf(info, "", "", "").path, "/mnt/sda1");
  EXPECT_EQ(ArrivalOf(NFS_DATA_T{}, "/srv/nfs/sda1").path, "/mnt/sda1");
  EXPECT_EQ(RemovalOf("/srv/nfs/sda1").path, "/mnt/sda1");
}

}  // namespace
