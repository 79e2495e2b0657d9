#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "tools/shares/ShareTable.h"

using tools::Announcement;
using tools::Share;
using tools::ShareChange;
using tools::ShareEvent;
using tools::ShareTable;

namespace {

using namespace std::chrono_literals;

const ShareTable::Clock::time_point kStart{};

Share Announced(const std::string& sender, const std::string& path) {
  return {sender, Announcement{.path = path}};
}

Share Withdrawn(const std::string& sender, const std::string& path) {
  return {sender, Announcement{.type = tools::kTypeWithdraw, .path = path}};
}

std::optional<ShareChange> ChangeOf(const std::optional<ShareEvent>& event) {
  if (!event) return std::nullopt;
  return event->change;
}

TEST(ShareTable, AShareAppearsOnceAndIsWithdrawnOnce) {
  ShareTable table(10);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart + 1s)), std::nullopt);
  EXPECT_EQ(ChangeOf(table.Heard(Withdrawn("a", "/x"), kStart + 2s)), ShareChange::Withdrawn);
  EXPECT_EQ(ChangeOf(table.Heard(Withdrawn("a", "/x"), kStart + 2s)), std::nullopt);
  EXPECT_TRUE(table.Present().empty());
}

TEST(ShareTable, ASilentShareGoesAfterThreeSeconds) {
  ShareTable table(10);
  EXPECT_TRUE(table.Heard(Announced("a", "/x"), kStart));
  EXPECT_FALSE(table.Heard(Announced("a", "/x"), kStart + 1s));
  EXPECT_TRUE(table.Expire(kStart + 3999ms).empty());
  const auto events = table.Expire(kStart + 4s);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].change, ShareChange::Silent);
  EXPECT_EQ(events[0].share.announcement.path, "/x");
  EXPECT_TRUE(table.Expire(kStart + 9s).empty());
}

TEST(ShareTable, TheSamePathOfTwoUnitsIsTwoShares) {
  ShareTable table(10);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("b", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_TRUE(table.Heard(Withdrawn("a", "/x"), kStart));
  ASSERT_EQ(table.Present().size(), 1U);
  EXPECT_EQ(table.Present()[0].sender, "b");
}

TEST(ShareTable, AnotherNameIsAChange) {
  ShareTable table(10);
  EXPECT_TRUE(table.Heard(Announced("a", "/x"), kStart));
  Share renamed = Announced("a", "/x");
  renamed.announcement.friendlyName = "new";
  EXPECT_EQ(ChangeOf(table.Heard(renamed, kStart)), ShareChange::Changed);
  EXPECT_EQ(ChangeOf(table.Heard(renamed, kStart)), std::nullopt);
}

TEST(ShareTable, AFullTableTellsItOnceAndTakesNoMore) {
  ShareTable table(2);
  EXPECT_TRUE(table.Heard(Announced("a", "/1"), kStart));
  EXPECT_TRUE(table.Heard(Announced("a", "/2"), kStart));
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/3"), kStart)), ShareChange::NoRoom);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/4"), kStart)), std::nullopt);
  EXPECT_EQ(table.Present().size(), 2U);
  EXPECT_TRUE(table.Heard(Withdrawn("a", "/1"), kStart));
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/3"), kStart)), ShareChange::Appeared);
}

}  // namespace
