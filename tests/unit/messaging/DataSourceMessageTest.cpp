#include "messaging/DataSourceMessage.h"

#include <gtest/gtest.h>

#include "messaging/DataSourceInfo.h"

namespace {

std::string Built(DataSourceInfo info) {
  return BuildDataSourceMessage(info);
}

TEST(DataSourceMessage, OfAStickIsExactlyThis) {
  EXPECT_EQ(Built({.arrival = true,
                   .path = "/media/sda1",
                   .friendlyName = "USB Mass Storage",
                   .contentId = "C-1",
                   .serialNumber = "S-2"}),
            R"(<message version="1" type="datasource"><content><dataarrival path="/media/sda1")"
            R"( type="harddrive" key="" contentid="C-1" serialnumber="S-2")"
            R"( friendlyname="USB Mass Storage" remote="false" readonly="false" fixed="false" />)"
            R"(</content></message>)");
}

TEST(DataSourceMessage, OfACardCarriesItsCorrectedRegister) {
  EXPECT_EQ(Built({.arrival = true,
                   .memoryCard = true,
                   .readOnly = true,
                   .path = "/media/mmcblk0p1",
                   .friendlyName = "Memory Card - 0",
                   .key = "0353445355303847802A5B1C4A00F300",
                   .contentId = "C-1",
                   .serialNumber = "S-2"}),
            R"(<message version="1" type="datasource"><content>)"
            R"(<dataarrival path="/media/mmcblk0p1" type="memorycard")"
            R"( key="0353445355303847802A5B1C4A00F3b1" contentid="C-1" serialnumber="S-2")"
            R"( friendlyname="Memory Card - 0" remote="false" readonly="true" fixed="false" />)"
            R"(</content></message>)");
}

TEST(DataSourceMessage, WritesEmptyTextsAndEveryFlag) {
  EXPECT_EQ(Built({.arrival = true, .fixed = true, .remote = true, .readOnly = true}),
            R"(<message version="1" type="datasource"><content><dataarrival path="")"
            R"( type="harddrive" key="" contentid="" serialnumber="" friendlyname="")"
            R"( remote="true" readonly="true" fixed="true" /></content></message>)");
}

TEST(DataSourceMessage, EachFlagHasItsOwnPlace) {
  EXPECT_NE(Built({.arrival = true, .fixed = true})
                .find(R"( remote="false" readonly="false" fixed="true" />)"),
            std::string::npos);
  EXPECT_NE(Built({.arrival = true, .remote = true})
                .find(R"( remote="true" readonly="false" fixed="false" />)"),
            std::string::npos);
  EXPECT_NE(Built({.arrival = true, .readOnly = true})
                .find(R"( remote="false" readonly="true" fixed="false" />)"),
            std::string::npos);
}

TEST(DataSourceMessage, OfARemovalCarriesThePathAlone) {
  EXPECT_EQ(Built({.path = "/media/sda1"}),
            R"(<message version="1" type="datasource"><content>)"
            R"(<dataremoval path="/media/sda1"/></content></message>)");
  EXPECT_EQ(Built({.fixed = true,
                   .remote = true,
                   .readOnly = true,
                   .path = "/mnt/x",
                   .friendlyName = "n",
                   .key = "k",
                   .contentId = "c",
                   .serialNumber = "s"}),
            R"(<message version="1" type="datasource"><content>)"
            R"(<dataremoval path="/mnt/x"/></content></message>)");
}

TEST(DataSourceMessage, CorrectsTheKeyInTheCardsRecordAndLeavesOthers) {
  const std::string register32(32, '0');
  DataSourceInfo card{.arrival = true, .memoryCard = true, .key = register32};
  DataSourceInfo disk{.arrival = true, .key = register32};
  const std::string cardText = BuildDataSourceMessage(card);
  const std::string diskText = BuildDataSourceMessage(disk);
  EXPECT_EQ(card.key, std::string(30, '0') + "01");
  EXPECT_EQ(disk.key, register32);
  EXPECT_NE(cardText.find(" key=\"" + card.key + "\""), std::string::npos);
  EXPECT_NE(diskText.find(" key=\"" + register32 + "\""), std::string::npos);
}

TEST(DataSourceMessage, SendsAKeyOfTheWrongLengthAsItIs) {
  DataSourceInfo card{.arrival = true, .memoryCard = true, .key = "abc"};
  EXPECT_NE(BuildDataSourceMessage(card).find(R"( type="memorycard" key="abc" )"),
            std::string::npos);
}

TEST(DataSourceMessage, EscapesWhatXmlDemandsAndNothingElse) {
  for (int code = 0; code < 256; ++code) {
    const std::string byte(1, static_cast<char>(code));
    std::string escaped = code < 0x20 ? "?" : byte;
    if (byte == "&") escaped = "&amp;";
    if (byte == "<") escaped = "&lt;";
    if (byte == ">") escaped = "&gt;";
    if (byte == "\"") escaped = "&quot;";
    if (byte == "\t") escaped = "&#9;";
    if (byte == "\n") escaped = "&#10;";
    if (byte == "\r") escaped = "&#13;";
    EXPECT_EQ(Built({.path = "a" + byte + "b"}),
              R"(<message version="1" type="datasource"><content><dataremoval path="a)" + escaped +
                  R"(b"/></content></message>)")
        << code;
  }
}

TEST(DataSourceMessage, EscapesEachByteForItself) {
  const struct {
    const char* given;
    const char* escaped;
  } cases[] = {
      {"it's", "it's"},  {"&amp;", "&amp;amp;"}, {"&#10;", "&amp;#10;"},
      {"]]>", "]]&gt;"}, {"%s%n", "%s%n"},       {"\xE2\x82\xAC", "\xE2\x82\xAC"},
  };
  for (const auto& [given, escaped] : cases) {
    EXPECT_EQ(Built({.path = given}),
              R"(<message version="1" type="datasource"><content><dataremoval path=")" +
                  std::string(escaped) + R"("/></content></message>)");
  }
}

TEST(DataSourceMessage, EscapesAKeyAfterItsCorrection) {
  const std::string zeros(26, '0');
  DataSourceInfo card{.arrival = true, .memoryCard = true, .key = R"(&<>")" + zeros + "00"};
  EXPECT_NE(BuildDataSourceMessage(card).find(" key=\"&amp;&lt;&gt;&quot;" + zeros + "01\" "),
            std::string::npos);
  EXPECT_EQ(card.key, R"(&<>")" + zeros + "01");
}

TEST(DataSourceMessage, EscapesEveryField) {
  const std::string given = R"(<"&">)";
  const std::string escaped = "&lt;&quot;&amp;&quot;&gt;";
  const std::string text = Built({.arrival = true,
                                  .path = given + "1",
                                  .friendlyName = given + "2",
                                  .key = given + "3",
                                  .contentId = given + "4",
                                  .serialNumber = given + "5"});
  EXPECT_EQ(text, R"(<message version="1" type="datasource"><content><dataarrival path=")" +
                      escaped + R"(1" type="harddrive" key=")" + escaped + R"(3" contentid=")" +
                      escaped + R"(4" serialnumber=")" + escaped + R"(5" friendlyname=")" +
                      escaped +
                      R"(2" remote="false" readonly="false" fixed="false" /></content></message>)");
}

}  // namespace
