#include <gmock/gmock.h>

#include <chrono>
#include <limits>
#include <string>

#include "program/Printable.h"
#include "tools/MessageFormat.h"

namespace {

using namespace std::string_literals;

const auto kTime =
    std::chrono::system_clock::time_point(std::chrono::milliseconds(1'500'000'000'042));

tools::Received Arrival() {
  tools::Frame frame{"frame", "", ""};
  frame.text =
      R"(<message version="1" type="datasource"><content><dataarrival path="/mnt/a" type="harddrive" )"
      "key=\"\" contentid=\"C\" serialnumber=\"S\" friendlyname=\"K\xC3\xBC\x9B[2J &quot;\" "
      R"(remote="false" readonly="true" fixed="false" /></content></message>)";
  return tools::Examine(frame, kTime);
}

TEST(ToolsPrintable, WhatATerminalWouldActOnIsShownAsDigits) {
  const struct {
    std::string bytes;
    const char* text;
  } kTable[] = {
      {"plain text", "plain text"},
      {"a\\b", "a\\\\b"},
      {"\x1B[2J\n\x7F\x00"s, "\\x1b[2J\\x0a\\x7f\\x00"},
      {"K\xC3\xBC", "K\xC3\xBC"},
      {"\xC3", "\\xc3"},
      {"\xC3(", "\\xc3("},
      {"\xC0\x80\xED\xA0\x80", "\\xc0\\x80\\xed\\xa0\\x80"},
      {"\xC2\x9B", "\\xc2\\x9b"},           // a control character of its own: CSI
      {"\xE2\x80\xAE", "\\xe2\\x80\\xae"},  // turns the direction of writing around
  };
  for (const auto& row : kTable) EXPECT_EQ(program::Printable(row.bytes), row.text);
}

TEST(ToolsPrintable, QuotesInsideAreMarked) {
  EXPECT_EQ(program::Quoted("a\"b"), "\"a\\\"b\"");
}

TEST(ToolsPrintable, PaddingCountsCharacters) {
  EXPECT_EQ(program::Padded("K\xC3\xBC", 4), "K\xC3\xBC  ");
  EXPECT_EQ(program::Padded("longer", 3), "longer");
}

TEST(ToolsPrintable, JsonStringsAreAscii) {
  EXPECT_EQ(program::JsonString("a\"\\\n\xE9/"s), R"("a\"\\\u000a\u00e9/")");
}

TEST(ToolsPrintable, DumpsHaveSixteenBytesARow) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(program::HexDump("", kAll), "");
  EXPECT_EQ(program::HexDump("\x00\x08"s + "0123456789abcde", kAll),
            "00000000  00 08 30 31 32 33 34 35  36 37 38 39 61 62 63 64  |..0123456789abcd|\n"
            "00000010  65                                                |e|\n");
  EXPECT_EQ(program::HexDump(std::string(33, 'x'), 2).substr(2 * 79), "... and 1 more bytes\n");
}

TEST(ToolsMessageFormat, AnArrivalIsOneLineWithoutControlCharacters) {
  const std::string line = tools::TableText(Arrival());
  EXPECT_EQ(
      line.substr(line.find("  arrival")),
      "  arrival  /mnt/a                 \"K\xC3\xBC\\x9b[2J \\\"\"           harddrive   "
      "readonly=true  remote=false fixed=false key=\"\" contentid=\"C\" serialnumber=\"S\"\n");
}

TEST(ToolsMessageFormat, JsonHoldsEveryAttributeAndTheText) {
  const tools::Received arrival = Arrival();
  EXPECT_EQ(tools::JsonText(arrival),
            R"({"time":"2017-07-14T02:40:00.042Z","well_formed":true,"message":"arrival",)"
            R"("path":"/mnt/a","type":"harddrive","key":"","contentid":"C","serialnumber":"S",)"
            R"("friendlyname":"K\u00c3\u00bc\u009b[2J \"","remote":false,"readonly":true,)"
            R"("fixed":false,"text":)" +
                program::JsonString(*arrival.text) + "}\n");
}

TEST(ToolsMessageFormat, AFaultyFrameShowsItsReasonAndBytes) {
  const auto faulty = tools::Examine(tools::DecodeFrame("\x00\x04\x1B\x00\x00\x00"s), kTime);
  EXPECT_EQ(tools::JsonText(faulty),
            R"({"time":"2017-07-14T02:40:00.042Z","well_formed":false,)"
            R"("reason":"the second field is 1b00 instead of zero","bytes":"00041b000000"})"
            "\n");
  const std::string table = tools::TableText(faulty);
  EXPECT_EQ(table.substr(table.find("  faulty")),
            "  faulty   the second field is 1b00 instead of zero\n"
            "00000000  00 04 1b 00 00 00                                 |......|\n");
}

TEST(ToolsMessageFormat, ATextThatIsNoMessageIsFaultyAndStillShown) {
  const auto faulty =
      tools::Examine(tools::DecodeFrame("\x00\x06\x00\x00\x00\x02\x00\x61"s), kTime);
  EXPECT_FALSE(faulty.message);
  EXPECT_EQ(faulty.text, "a");
  EXPECT_TRUE(faulty.fault.starts_with("the text is not a valid message: ")) << faulty.fault;
}

TEST(ToolsMessageFormat, RawShowsEveryByte) {
  tools::Received arrival = Arrival();
  arrival.bytes = std::string(1000, 'x');
  const std::string raw = tools::RawText(arrival);
  EXPECT_NE(raw.find("arrival  1000 bytes\n00000000  78 78"), std::string::npos) << raw;
  EXPECT_NE(raw.find("000003e0  78 78"), std::string::npos) << raw;
}

TEST(ToolsMessageFormat, AnIncidentIsOneLineInBothForms) {
  const tools::Incident alone{kTime, tools::Mishap::Refused, "nobody listens", "", ""};
  EXPECT_EQ(tools::TableText(alone).substr(12), "  refused  nobody listens\n");
  EXPECT_EQ(tools::JsonText(alone), R"({"time":"2017-07-14T02:40:00.042Z","incident":"refused",)"
                                    R"("reason":"nobody listens"})"
                                    "\n");
  const tools::Incident about{kTime, tools::Mishap::Lost, "gone", "arrival", "/a\x1B\xFC"};
  EXPECT_EQ(tools::TableText(about).substr(12), "  lost     arrival of /a\\x1b\\xfc: gone\n");
  EXPECT_THAT(tools::JsonText(about),
              testing::EndsWith(R"("reason":"gone","message":"arrival","path":"/a\u001b\u00fc"})"
                                "\n"));
}

}  // namespace
