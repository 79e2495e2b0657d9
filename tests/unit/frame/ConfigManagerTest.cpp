#include "frame/ConfigManager.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <optional>
#include <random>
#include <sstream>
#include <vector>

#include "support/CapturedLog.h"
#include "support/OrdinaryUser.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// An entry in one line: "name/usbid/mmc/ignore/ignoreDevice".
std::string Shown(const UsbMapEntry& entry) {
  return entry.name + "/" + entry.usbid + "/" + (entry.mmc ? "mmc" : "") + "/" +
         (entry.ignore ? "ignore" : "") + "/" + entry.ignoreDevice;
}

std::vector<std::string> Parsed(std::string_view text) {
  std::vector<std::string> entries;
  ParseUsbMap(text, [&](const UsbMapEntry& entry) { entries.push_back(Shown(entry)); });
  return entries;
}

/// The rules once more, by another road: line-wise reading from a stream.
std::vector<std::string> ParsedByModel(const std::string& text) {
  std::vector<std::string> entries;
  std::optional<UsbMapEntry> building;
  std::istringstream stream(text);
  while (stream.good()) {
    std::string key;
    std::string value;
    std::getline(stream, key, '=');
    std::getline(stream, value);
    if (key.empty() || value.empty()) continue;
    if (building && key == "name") {
      entries.push_back(Shown(*building));
      building = UsbMapEntry();
    }
    if (!building) building = UsbMapEntry();
    if (key == "name") {
      building->name = value;
    } else if (key == "usbid") {
      building->usbid = value;
    } else if (key == "mmc") {
      building->mmc = value == "true";
    } else if (key == "ignore") {
      building->ignore = value == "true";
    } else if (key == "ignoreDevice") {
      building->ignoreDevice = value;
    }
  }
  if (building && !building->name.empty() && !building->usbid.empty()) {
    entries.push_back(Shown(*building));
  }
  return entries;
}

struct tCase {
  const char* rule;
  std::string text;
  std::vector<std::string> entries;
};

class UsbMapText : public testing::TestWithParam<tCase> {};

TEST_P(UsbMapText, IsReadAsItsRuleSays) {
  EXPECT_EQ(Parsed(GetParam().text), GetParam().entries) << GetParam().rule;
  EXPECT_EQ(ParsedByModel(GetParam().text), GetParam().entries) << GetParam().rule;
}

const tCase kCases[] = {
    {"EmptyText", "", {}},
    {"OneEntry", "name=Chart Port\nusbid=1-1_3\n", {"Chart Port/1-1_3///"}},
    {"NoLineEndAtTheEnd", "name=a\nusbid=1", {"a/1///"}},
    {"AllFields",
     "name=a\nusbid=1\nmmc=true\nignore=true\nignoreDevice=/dev/sdb1\n",
     {"a/1/mmc/ignore//dev/sdb1"}},
    {"NameBeginsTheNextEntry", "name=a\nusbid=1\nname=b\nusbid=2\n", {"a/1///", "b/2///"}},
    {"FieldsDoNotLeakIntoTheNextEntry",
     "name=a\nusbid=1\nmmc=true\nignore=true\nignoreDevice=x\nname=b\nusbid=2\n",
     {"a/1/mmc/ignore/x", "b/2///"}},
    {"TheFirstItemNeedNotBeAName", "usbid=1\nname=a\nusbid=2\n", {"/1///", "a/2///"}},
    {"TheFirstNameCommitsNothing", "name=a\nusbid=1\n", {"a/1///"}},
    {"AnUnknownFirstKeyBeginsAnEntryToo", "color=red\nname=a\nusbid=1\n", {"////", "a/1///"}},
    {"ALastEntryWithoutUsbidIsDropped", "name=a\nignore=true\nignoreDevice=sdb\n", {}},
    {"TheSameEntryBeforeANameIsCommitted",
     "name=a\nignore=true\nignoreDevice=sdb\nname=b\n",
     {"a///ignore/sdb"}},
    {"ALastEntryWithoutNameIsDropped", "usbid=1\n", {}},
    {"OnlyTheExactTextTrueIsTrue",
     "name=a\nmmc=TRUE\nignore= true\nname=b\nmmc=true\nmmc=yes\nusbid=1\n",
     {"a////", "b/1///"}},
    {"AnEmptyValueIsSkipped", "name=a\nusbid=1\nusbid=\n", {"a/1///"}},
    {"AnEmptyNameCommitsNothing", "name=a\nusbid=1\nname=\nmmc=true\n", {"a/1/mmc//"}},
    {"AnEmptyKeyIsSkipped", "=x\nname=a\nusbid=1\n", {"a/1///"}},
    {"ALaterItemReplacesAnEarlierOne", "name=a\nusbid=1\nusbid=2\n", {"a/2///"}},
    {"ABlankLineSpoilsTheNextKey", "name=a\nusbid=1\n\nname=b\nusbid=2\nmmc=true\n", {"a/2/mmc//"}},
    {"ACommentSpoilsTheNextKey",
     "# ports\nname=a\nusbid=1\nname=b\nusbid=2\n",
     {"/1///", "b/2///"}},
    {"ACommentWithAnEqualsSignIsAnItemOfItsOwn", "#x=y\nname=a\nusbid=1\n", {"////", "a/1///"}},
    {"AValueMayHoldEqualsSigns", "name=a=b\nusbid==1\n", {"a=b/=1///"}},
    {"NothingIsTrimmed", "name= a \nusbid=\t1\n usbid=2\n", {" a /\t1///"}},
    {"ACarriageReturnStays", "name=a\r\nusbid=1\r\nmmc=true\r\n", {"a\r/1\r///"}},
    {"KeysAreCaseSensitive", "name=a\nusbid=1\nUSBID=2\nName=b\n", {"a/1///"}},
    {"NoEqualsSignAtAll", "name\nusbid\nmmc\n", {}},
    {"OnlyEqualsSigns", "====\n==\n=", {}},
    {"OnlyLineEnds", "\n\n\n", {}},
    {"OnlyAComment", "# nothing here\n\n", {}},
    {"ANameAtTheVeryEndIsDropped", "name=a\nusbid=1\nname=b", {"a/1///"}},
    {"TrueWithABlankBehindIsNotTrue", "name=a\nusbid=1\nmmc=true \nignore=true \n", {"a/1///"}},
    {"EachFlagCanBeTakenBack",
     "name=a\nusbid=1\nmmc=true\nignore=true\nmmc=no\nignore=false\n",
     {"a/1///"}},
    {"AnEmptyKeyAtTheEndIsSkipped", "name=a\nusbid=1\n=y\n", {"a/1///"}},
    {"AnUnknownKeyInAnEntryIsSkipped", "name=a\nusbid=1\ncolour=red\n", {"a/1///"}},
    {"EveryKeyIsCaseSensitive",
     "name=a\nusbid=1\nUsbId=2\nMMC=true\nIgnore=true\nignoredevice=x\n",
     {"a/1///"}},
    {"ABlankBehindAKeyStays", "name=a\nusbid=1\nusbid =2\n", {"a/1///"}},
    {"ACommentInAnEntrySpoilsTheNextKey",
     "name=a\n# the port in front\nusbid=1\nmmc=true\nusbid=2\n",
     {"a/2/mmc//"}},
    {"BytesThatAreNoCharactersStay", "name=\xFF\xFE\nusbid=1\n", {"\xFF\xFE/1///"}},
    {"ATrailingCommentChangesNothing", "name=a\nusbid=1\n# end", {"a/1///"}},
    {"AZeroByteIsAnOrdinaryByte",
     std::string("name=a\0b\nusbid=1\n", 17),
     {std::string("a\0b/1///", 8)}},
};

INSTANTIATE_TEST_SUITE_P(Table, UsbMapText, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.rule; });

TEST(UsbMapTextByChance, IsReadAsTheLineWiseModelReadsIt) {
  const char* const pieces[] = {
      "name=", "usbid=", "mmc=", "ignore=", "ignoreDevice=", "name", "=",     "\n", "\n",
      "\n",    "\n",     "#",    "true",    "false",         "x",    "1-1_3", " ",  "\r"};
  std::mt19937 random(20240501);
  std::uniform_int_distribution<size_t> piece(0, std::size(pieces) - 1);
  std::uniform_int_distribution<int> length(0, 60);
  size_t entries = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    for (int left = length(random); left > 0; --left) text += pieces[piece(random)];
    ASSERT_EQ(Parsed(text), ParsedByModel(text)) << text;
    entries += Parsed(text).size();
  }
  EXPECT_GT(entries, 100U) << "the texts hardly ever hold an entry";
}

TEST(ConfigManager, AMissingFileLeavesBothTablesEmptyAndSaysNothing) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Path("voldrake.conf"));
  EXPECT_THAT(config.GetUsbMap(), IsEmpty());
  EXPECT_THAT(config.GetIgnoreMap(), IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ConfigManager, EachEntryIsLoggedInFileOrder) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const ConfigManager config(
      directory.Write("c",
                      "name=z\nusbid=1\nmmc=true\nname=a\nusbid=2\nignore=true\n"
                      "ignoreDevice=/dev/sdb\n"));
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(tLogLine{kLogInfo, "USB MAP: name=z usbid=1 mmc=true ignore=false ignoreDevice="},
                  tLogLine{kLogInfo,
                           "USB MAP: name=a usbid=2 mmc=false ignore=true ignoreDevice=/dev/sdb"}));
}

TEST(ConfigManager, AnEntryStandsInExactlyOneOfTheTables) {
  const tTemporaryDirectory directory;
  const ConfigManager config(
      directory.Write("c",
                      "name=a\nusbid=1\nignore=true\nignoreDevice=sdb\n"
                      "name=b\nusbid=2\nignoreDevice=sdc\nname=c\nusbid=3\nignore=true\n"));
  const tUsbMap named = config.GetUsbMap();
  const tUsbMap ignored = config.GetIgnoreMap();
  ASSERT_EQ(named.size(), 1U);
  EXPECT_EQ(Shown(named.at("2")), "b/2///sdc");
  ASSERT_EQ(ignored.size(), 2U);
  EXPECT_EQ(Shown(ignored.at("sdb")), "a/1//ignore/sdb");
  EXPECT_EQ(Shown(ignored.at("")), "c/3//ignore/") << "an ignored entry may name no device";
}

TEST(ConfigManager, OfTwoEntriesWithOneKeyTheLaterStandsInFull) {
  const tTemporaryDirectory directory;
  const ConfigManager config(
      directory.Write("c", "name=a\nusbid=1\nmmc=true\nignoreDevice=x\nname=b\nusbid=1\n"));
  const tUsbMap named = config.GetUsbMap();
  ASSERT_EQ(named.size(), 1U);
  EXPECT_EQ(Shown(named.at("1")), "b/1///");
}

TEST(ConfigManager, OfTwoEntriesThatIgnoreADeviceTheLaterStandsInFull) {
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write("c",
                                             "name=a\nusbid=1\nignore=true\nignoreDevice=sdb\n"
                                             "name=b\nusbid=2\nignore=true\nignoreDevice=sdb\n"));
  EXPECT_THAT(config.GetUsbMap(), IsEmpty());
  const tUsbMap ignored = config.GetIgnoreMap();
  ASSERT_EQ(ignored.size(), 1U);
  EXPECT_EQ(Shown(ignored.at("sdb")), "b/2//ignore/sdb");
}

TEST(ConfigManager, TheNamingTableIsOrderedByTheBytesOfTheUsbid) {
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write(
      "c", "name=a\nusbid=b\nname=b\nusbid=\xC3\xA4\nname=c\nusbid=B\nname=d\nusbid=1\n"));
  std::vector<std::string> keys;
  for (const auto& [key, entry] : config.GetUsbMap()) keys.push_back(key);
  EXPECT_THAT(keys, ElementsAre("1", "B", "b", "\xC3\xA4"));
}

TEST(ConfigManager, AnEntryWithoutUsbidStandsUnderTheEmptyKey) {
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write("c", "name=a\nmmc=true\nname=b\nusbid=2\n"));
  EXPECT_EQ(Shown(config.GetUsbMap().at("")), "a//mmc//");
}

TEST(ConfigManager, WhatIsNoFileCountsAsEmpty) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string fifo = directory.Path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // The memory of this process opens, but cannot be read at its start.
  for (const std::string& path :
       {directory.Path(), fifo, std::string("/proc/self/mem"), std::string("/dev/null"),
        directory.Link("dangling", "nowhere"), directory.Link("to-itself", "to-itself")}) {
    const ConfigManager config(path);
    EXPECT_THAT(config.GetUsbMap(), IsEmpty()) << path;
    EXPECT_THAT(config.GetIgnoreMap(), IsEmpty()) << path;
  }
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ConfigManager, AFileWithoutReadPermissionCountsAsMissing) {
  if (!tOrdinaryUser::IsPossible()) GTEST_SKIP() << "this root cannot act as anybody else";
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string path = directory.Write("c", "name=a\nusbid=1\n");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const tOrdinaryUser user;
  const ConfigManager config(path);
  EXPECT_THAT(config.GetUsbMap(), IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ConfigManager, RandomBytesAreReadByTheSameRules) {
  std::mt19937 random(7);
  std::string bytes(1'000'000, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  bytes += "\nname=a\nname=b\nusbid=1\n";
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write("c", bytes));
  std::vector<std::string> tabled;
  for (const auto& [key, entry] : config.GetUsbMap()) tabled.push_back(Shown(entry));
  // The first "name" is part of the key that the noise began; the second ends that entry.
  EXPECT_EQ(ParsedByModel(bytes), (std::vector<std::string>{"////", "b/1///"}));
  EXPECT_THAT(tabled, ElementsAre("////", "b/1///"));
}

TEST(ConfigManager, ALineOfTenMegabytesIsAnItemLikeAnyOther) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string longName(10'000'000, 'n');
  const ConfigManager config(
      directory.Write("c", "name=" + longName + "\nusbid=1\nname=b\nusbid=2\n"));
  const tUsbMap named = config.GetUsbMap();
  ASSERT_EQ(named.size(), 2U);
  EXPECT_EQ(named.at("1").name, longName);
  EXPECT_EQ(named.at("2").name, "b");
  EXPECT_EQ(log.Lines().size(), 2U);
}

TEST(ConfigManager, WhatStandsBehindSixteenMegabytesCountsAsNotThere) {
  // The limit lies in the usbid of the second entry.
  constexpr size_t kLimit = size_t{16} * 1024 * 1024;
  const std::string beginning = "name=a\nusbid=1\n=";
  const std::string end = "\nname=b\nusbid=2";
  const std::string filler(kLimit - beginning.size() - end.size(), 'x');
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write("c", beginning + filler + end + "2\nmmc=true\n"));
  const tUsbMap named = config.GetUsbMap();
  ASSERT_EQ(named.size(), 2U);
  EXPECT_EQ(Shown(named.at("2")), "b/2///");
}

TEST(ConfigManager, ALongKeyOrValueOfNoConcernChangesNothing) {
  const std::string longText(10'000'000, 'x');
  const std::vector<std::string> entries{"a/1///", "b/2///"};
  EXPECT_EQ(Parsed("name=a\nusbid=1\n" + longText + "=y\nname=b\nusbid=2\n"), entries);
  EXPECT_EQ(Parsed("name=a\nusbid=1\nnote=" + longText + "\nname=b\nusbid=2\n"), entries);
}

TEST(ConfigManager, ALineOfTenMegabytesWithoutEqualsSignIsTheFrontOfTheNextKey) {
  const tTemporaryDirectory directory;
  const ConfigManager config(
      directory.Write("c", std::string(10'000'000, 'n') + "\nname=a\nusbid=1\nname=b\nusbid=2\n"));
  EXPECT_EQ(Shown(config.GetUsbMap().at("1")), "/1///");
  EXPECT_EQ(Shown(config.GetUsbMap().at("2")), "b/2///");
}

TEST(ConfigManager, TheGettersGiveCopies) {
  const tTemporaryDirectory directory;
  const ConfigManager config(directory.Write("c", "name=a\nusbid=1\n"));
  tUsbMap copy = config.GetUsbMap();
  copy.clear();
  EXPECT_EQ(config.GetUsbMap().size(), 1U);
}

}  // namespace
