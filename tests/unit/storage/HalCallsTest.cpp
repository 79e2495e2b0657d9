// What the hardware service is asked, with which arguments, and what its replies count for.

#include <gmock/gmock.h>

#include <optional>

#include "frame/Settings.h"
#include "storage/tHalManager.h"
#include "support/CapturedLog.h"
#include "support/ScriptedBus.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class HalCalls : public testing::Test {
 protected:
  void SetUp() override {
    Bus() = {};
    ConnectToScriptedBus();
  }
  void TearDown() override { gVfatMountOpts = nullptr; }

  static tHalManager& Manager() { return *tHalManager::getInstance(); }
};

TEST_F(HalCalls, AConnectionThatIsOpenIsNotMadeAgain) {
  const tCapturedLog log;
  EXPECT_FALSE(Manager().initHal());
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogDebug, "initHal()"},
                                       tLogLine{kLogWarning, "HAL: Connection - already open"}));
}

TEST_F(HalCalls, AMountIsAskedWithNameTypeAndOptions) {
  const struct {
    const char* type;
    const char* given;  // null: no options
    bool asked;
  } cases[] = {
      {"vfat", nullptr, false}, {"vfat", "utf8,shortname=mixed", true},
      {"vfat", "", true},       {"vfatx", "utf8", true},
      {"ext3", "utf8", false},  {"VFAT", "utf8", false},
      {"xvfat", "utf8", false}, {"vfa", "utf8", false},
      {"", "utf8", false},
  };
  for (const auto& [type, given, asked] : cases) {
    const tCapturedLog log;
    Bus().calls.clear();
    gVfatMountOpts = given;
    EXPECT_TRUE(Manager().mountVolume("/volume", "sda1", type));
    const std::string options = asked ? std::string(" ") + given : "";
    EXPECT_THAT(Bus().calls,
                ElementsAre(std::string("Mount volume sda1 ") + type + " [" + options + " ]"));
    std::vector<tLogLine> lines;
    if (asked) lines.push_back({kLogDebug, given});
    EXPECT_THAT(log.Lines(), ElementsAreArray(lines)) << type;
  }
}

TEST_F(HalCalls, ARemountIsAskedWithItsMode) {
  gVfatMountOpts = "utf8";
  EXPECT_TRUE(Manager().remountVolume("/volume", "sda1", "vfat", true));
  EXPECT_TRUE(Manager().remountVolume("/volume", "sda1", "vfat", false));
  EXPECT_THAT(Bus().calls, ElementsAre("Mount volume sda1 vfat [ remount rw ]",
                                       "Mount volume sda1 vfat [ remount ro ]"));
}

TEST_F(HalCalls, AMountThatTheBusCannotCarryIsNotAsked) {
  const struct {
    const char* udi;
    const char* name;
    const char* type;
    const char* options;
    const char* event;
  } cases[] = {
      {"/volume", "sda1\xFF", "ext3", nullptr, "could not append arguments"},
      {"/volume", "sda1", "ext\xFF", nullptr, "could not append arguments"},
      {"/volume", "sda1", "vfat", "utf8\xFF", "could not append arguments"},
      {"volume", "sda1", "ext3", nullptr, "could not create DBus message"},
      {"", "sda1", "ext3", nullptr, "could not create DBus message"},
  };
  for (const auto& [udi, name, type, options, event] : cases) {
    gVfatMountOpts = options;
    const tCapturedLog log(kLogWarning);
    EXPECT_FALSE(Manager().mountVolume(udi, name, type));
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{kLogWarning, std::string("HAL: mountVolume() - ") + event}));
  }
  EXPECT_THAT(Bus().calls, IsEmpty());
}

TEST_F(HalCalls, TheWhiteSpaceAtTheEndOfAnErrorIsNotLogged) {
  const struct {
    const char* text;
    const char* shown;
  } cases[] = {
      {"gone", "gone"},
      {"gone\n", "gone"},
      {"gone \t\r\n\n", "gone"},
      {"go\nne\n", "go?ne"},
      {"\n", ""},
      {" gone\x07\n", " gone?"},
      {"in use, %s%n", "in use, %s%n"},
  };
  for (const auto& [text, shown] : cases) {
    const tCapturedLog log;
    Bus().errors["Mount"] = {"org.freedesktop.Hal.Error", text};
    EXPECT_FALSE(Manager().mountVolume("/volume", "sda1", "ext3"));
    EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogError, std::string("org.freedesktop.Hal."
                                                                         "Error: ") +
                                                                 shown}));
  }
}

TEST_F(HalCalls, TheSearchForDevicesGivesTheTextsUpToTheFirstOther) {
  constexpr const char* kInvalid = "HAL: findDeviceByCapability() - invalid message type";
  constexpr const char* kNone = "HAL: findDeviceByCapability() - reply message NULL";
  using tTexts = std::vector<std::string>;
  const struct {
    std::optional<tScriptedReply> reply;
    tTexts devices;
    std::vector<tLogLine> lines;
  } cases[] = {
      {std::nullopt, {}, {{kLogWarning, kNone}}},
      {std::monostate(), {}, {{kLogWarning, kInvalid}}},
      {"/x", {}, {{kLogWarning, kInvalid}}},
      {1, {}, {{kLogWarning, kInvalid}}},
      {std::vector<int32_t>{1, 2}, {}, {}},
      {tTexts{}, {}, {}},
      {tTexts{"/b", "", "a\nb", "/b"},
       {"/b", "", "a\nb", "/b"},
       {{kLogDebug, "/b"}, {kLogDebug, ""}, {kLogDebug, "a?b"}, {kLogDebug, "/b"}}},
  };
  for (const auto& [reply, devices, lines] : cases) {
    const tCapturedLog log;
    Bus() = {};
    if (reply) Bus().found["volume"] = *reply;
    EXPECT_EQ(Manager().findDeviceByCapability("volume"), devices);
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_THAT(Bus().calls, ElementsAre("FindDeviceByCapability Manager volume"));
  }
}

TEST_F(HalCalls, APropertyIsWorthWhatItsReplyHoldsIfThatIsOfItsType) {
  const tScriptedReply replies[] = {"text", 7, true, std::monostate(),
                                    std::vector<std::string>{"text"}};
  for (size_t given = 0; given < std::size(replies); ++given) {
    const tCapturedLog log;
    Bus().devices["/d"]["k"] = replies[given];
    bool ok = given != 0;
    EXPECT_EQ(Manager().propertyString("/d", "k", ok), given == 0 ? "text" : "");
    EXPECT_EQ(ok, given == 0);
    ok = given != 1;
    EXPECT_EQ(Manager().propertyInt("/d", "k", ok), given == 1 ? 7 : 0);
    EXPECT_EQ(ok, given == 1);
    ok = given != 2;
    EXPECT_EQ(Manager().propertyBool("/d", "k", ok), given == 2);
    EXPECT_EQ(ok, given == 2);
    std::vector<tLogLine> lines;
    const char* const operations[] = {"propertyString()", "propertyInt()", "propertyBool()"};
    for (size_t operation = 0; operation < std::size(operations); ++operation) {
      if (operation == given) continue;
      lines.push_back(
          {kLogWarning, std::string("HAL: ") + operations[operation] + " - invalid message type"});
    }
    EXPECT_EQ(log.Lines(), lines);
  }
  Bus().devices["/d"]["k"] = false;
  bool ok = false;
  EXPECT_FALSE(Manager().propertyBool("/d", "k", ok));
  EXPECT_TRUE(ok);
}

TEST_F(HalCalls, APropertyThatIsNotThereIsOneErrorLine) {
  const tCapturedLog log;
  bool ok = true;
  EXPECT_EQ(Manager().propertyString("/d", "k", ok), "");
  EXPECT_FALSE(ok);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogError,
                                                "org.freedesktop.Hal.NoSuchProperty: No property "
                                                "k on device with id /d"}));
  EXPECT_EQ(Manager().propertyInt("no path", "k", ok), 0);
  EXPECT_TRUE(log.Holds(kLogWarning, "HAL: propertyInt() - could not create DBus message"));
}

/// Devices "/0", "/1", ... of which each is the parent of the one before it; the last one has the
/// number.
void HaveAncestors(int count) {
  Bus() = {};
  for (int device = 0; device < count; ++device) {
    Bus().devices["/" + std::to_string(device)]["info.parent"] = "/" + std::to_string(device + 1);
  }
  Bus().devices["/" + std::to_string(count)]["n"] = 7;
}

TEST_F(HalCalls, AnInheritedNumberIsTheNearestOfThirtyTwoAncestors) {
  const struct {
    int ancestors;
    bool ok;
    size_t calls;
  } cases[] = {{0, true, 1}, {1, true, 3}, {2, true, 5}, {32, true, 65}, {33, false, 66}};
  for (const auto& [ancestors, expected, calls] : cases) {
    const tCapturedLog log;
    HaveAncestors(ancestors);
    bool ok = !expected;
    EXPECT_EQ(Manager().propertyIntInherited("/0", "n", ok), expected ? 7 : 0) << ancestors;
    EXPECT_EQ(ok, expected) << ancestors;
    EXPECT_EQ(Bus().calls.size(), calls) << ancestors;
    EXPECT_EQ(log.Holds(kLogError, "HAL: propertyIntInherited() - too many ancestors of /0"),
              !expected);
  }
  HaveAncestors(3);
  Bus().devices["/1"]["n"] = 5;
  bool ok = false;
  EXPECT_EQ(Manager().propertyIntInherited("/0", "n", ok), 5);
}

TEST_F(HalCalls, AnInheritedNumberThatNobodyHasEndsAtTheDeviceWithoutParent) {
  Bus().devices["/0"]["info.parent"] = "/1";
  bool ok = true;
  EXPECT_EQ(Manager().propertyIntInherited("/0", "n", ok), 0);
  EXPECT_FALSE(ok);
  EXPECT_THAT(Bus().calls,
              ElementsAre("GetPropertyInteger 0 n", "GetPropertyString 0 info.parent",
                          "GetPropertyInteger 1 n", "GetPropertyString 1 info.parent"));
}

}  // namespace
