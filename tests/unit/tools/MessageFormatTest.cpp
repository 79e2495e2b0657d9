#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include "program/JsonObject.h"
#include "tools/monitor/MessageFormat.h"

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

TEST(MessageFormat, AnArrivalIsOneLineWithoutControlCharacters) {
  const std::string line = tools::TableText(Arrival());
  EXPECT_EQ(
      line.substr(line.find("  arrival")),
      "  arrival  /mnt/a                 \"K\xC3\xBC\\x9b[2J \\\"\"           harddrive   "
      "readonly=true  remote=false fixed=false key=\"\" contentid=\"C\" serialnumber=\"S\"\n");
}

TEST(MessageFormat, JsonHoldsEveryAttributeAndTheText) {
  const tools::Received arrival = Arrival();
  EXPECT_EQ(tools::JsonText(arrival),
            R"({"time":"2017-07-14T02:40:00.042Z","well_formed":true,"message":"arrival",)"
            R"("path":"/mnt/a","type":"harddrive","key":"","contentid":"C","serialnumber":"S",)"
            R"("friendlyname":"K\u00c3\u00bc\u009b[2J \"","remote":false,"readonly":true,)"
            R"("fixed":false,)" +
                program::JsonObject().AddBytes("text", *arrival.text).Text().substr(1) + "\n");
}

TEST(MessageFormat, AFaultyFrameShowsItsReasonAndBytes) {
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

TEST(MessageFormat, ATextThatIsNoMessageIsFaultyAndStillShown) {
  const auto faulty =
      tools::Examine(tools::DecodeFrame("\x00\x06\x00\x00\x00\x02\x00\x61"s), kTime);
  EXPECT_FALSE(faulty.message);
  EXPECT_EQ(faulty.text, "a");
  EXPECT_TRUE(faulty.fault.starts_with("the text is not a valid message: ")) << faulty.fault;
}

TEST(MessageFormat, RawShowsEveryByte) {
  tools::Received arrival = Arrival();
  arrival.bytes = std::string(1000, 'x');
  const std::string raw = tools::RawText(arrival);
  EXPECT_NE(raw.find("arrival  1000 bytes\n00000000  78 78"), std::string::npos) << raw;
  EXPECT_NE(raw.find("000003e0  78 78"), std::string::npos) << raw;
}

TEST(MessageFormat, AnIncidentIsOneLineInBothForms) {
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
