#include <gmock/gmock.h>

#include <chrono>
#include <optional>
#include <string>

#include "tools/ShareFormat.h"
#include "tools/ShareTable.h"

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

TEST(ToolsShareTable, AShareAppearsOnceAndIsWithdrawnOnce) {
  ShareTable table(10);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart + 1s)), std::nullopt);
  EXPECT_EQ(ChangeOf(table.Heard(Withdrawn("a", "/x"), kStart + 2s)), ShareChange::Withdrawn);
  EXPECT_EQ(ChangeOf(table.Heard(Withdrawn("a", "/x"), kStart + 2s)), std::nullopt);
  EXPECT_TRUE(table.Present().empty());
}

TEST(ToolsShareTable, ASilentShareGoesAfterThreeSeconds) {
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

TEST(ToolsShareTable, TheSamePathOfTwoUnitsIsTwoShares) {
  ShareTable table(10);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("b", "/x"), kStart)), ShareChange::Appeared);
  EXPECT_TRUE(table.Heard(Withdrawn("a", "/x"), kStart));
  ASSERT_EQ(table.Present().size(), 1U);
  EXPECT_EQ(table.Present()[0].sender, "b");
}

TEST(ToolsShareTable, AnotherNameIsAChange) {
  ShareTable table(10);
  EXPECT_TRUE(table.Heard(Announced("a", "/x"), kStart));
  Share renamed = Announced("a", "/x");
  renamed.announcement.friendlyName = "new";
  EXPECT_EQ(ChangeOf(table.Heard(renamed, kStart)), ShareChange::Changed);
  EXPECT_EQ(ChangeOf(table.Heard(renamed, kStart)), std::nullopt);
}

TEST(ToolsShareTable, AFullTableTellsItOnceAndTakesNoMore) {
  ShareTable table(2);
  EXPECT_TRUE(table.Heard(Announced("a", "/1"), kStart));
  EXPECT_TRUE(table.Heard(Announced("a", "/2"), kStart));
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/3"), kStart)), ShareChange::NoRoom);
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/4"), kStart)), std::nullopt);
  EXPECT_EQ(table.Present().size(), 2U);
  EXPECT_TRUE(table.Heard(Withdrawn("a", "/1"), kStart));
  EXPECT_EQ(ChangeOf(table.Heard(Announced("a", "/3"), kStart)), ShareChange::Appeared);
}

TEST(ToolsShareFormat, LinesHoldNoControlCharacters) {
  Share share = Announced("169.254.3.7", "/x\n\x1B");
  share.announcement.friendlyName = "K\xC3\xBC\x9B";
  share.announcement.readOnly = true;
  EXPECT_EQ(tools::TableText(share),
            "169.254.3.7:/x\\x0a\\x1b             \"K\xC3\xBC\\x9b\"                 read-only  "
            "media=1 key=\"\"\n");
  const auto time = tools::WallTime(1'500'000'000'042ms);
  EXPECT_EQ(tools::JsonText(ShareEvent{ShareChange::Appeared, share}, time),
            R"({"time":"2017-07-14T02:40:00.042Z","event":"appeared","sender":"169.254.3.7",)"
            R"("path":"/x\u000a\u001b","key":"","friendlyname":"K\u00c3\u00bc\u009b",)"
            "\"mediatype\":1,\"readonly\":true}\n");
}

TEST(ToolsShareFormat, AMalformedDatagramShowsReasonAndBytes) {
  const auto time = tools::WallTime(1'500'000'000'042ms);
  const std::string table = tools::MalformedTableText("1.2.3.4", "\x1B", "too short", time);
  EXPECT_EQ(table.substr(table.find("  malformed")),
            "  malformed  from 1.2.3.4: too short\n"
            "00000000  1b                                                |.|\n");
  EXPECT_EQ(tools::MalformedJsonText("1.2.3.4", "\x1B", "too short", time),
            R"({"time":"2017-07-14T02:40:00.042Z","event":"malformed","sender":"1.2.3.4",)"
            R"("reason":"too short","taken_by_units":false,"bytes":"1b"})"
            "\n");
}

TEST(ToolsShareFormat, WhatUnitsDoWithAMalformedDatagramIsSaid) {
  const std::string head("\x78\x56\x34\x12\x01\x00", 6);
  const std::string rest("\x00\xe8\x03\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 14);
  const struct {
    std::string datagram;
    const char* table;
    const char* json;
  } kTable[] = {
      {head, "from 1.2.3.4: why\n", R"("taken_by_units":false,"bytes")"},
      {head + "\1" + rest, "from 1.2.3.4: why; units still accept it\n",
       R"("taken_by_units":true,"bytes")"},
      {head + "\7" + rest,
       "from 1.2.3.4: why; it ends every unit that was not built with "
       "VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS\n",
       R"("taken_by_units":false,"ends_units":true,"bytes")"},
  };
  for (const auto& row : kTable) {
    EXPECT_THAT(tools::MalformedTableText("1.2.3.4", row.datagram, "why", {}),
                testing::HasSubstr(row.table));
    EXPECT_THAT(tools::MalformedJsonText("1.2.3.4", row.datagram, "why", {}),
                testing::HasSubstr(row.json));
  }
}

}  // namespace
