#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include "tools/shares/ShareFormat.h"

using tools::Announcement;
using tools::Share;
using tools::ShareChange;
using tools::ShareEvent;

namespace {

using namespace std::chrono_literals;

TEST(ShareFormat, LinesHoldNoControlCharacters) {
  Share share{"169.254.3.7", Announcement{.path = "/x\n\x1B"}};
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

TEST(ShareFormat, AMalformedDatagramShowsReasonAndBytes) {
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

TEST(ShareFormat, WhatUnitsDoWithAMalformedDatagramIsSaid) {
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
