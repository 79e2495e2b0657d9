// Which signals of the hardware service are handed on, and to which operation.

#include <gmock/gmock.h>

#include "storage/IHalManagerCallback.h"
#include "storage/tHalManager.h"
#include "support/CapturedLog.h"
#include "support/ScriptedBus.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr const char* kManager = "/org/freedesktop/Hal/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.Hal.Manager";
constexpr const char* kDevice = "/volume";
constexpr const char* kDeviceInterface = "org.freedesktop.Hal.Device";
constexpr const char* kChangeError = "dBusHandler: PropertyModified: arg error";

using tTexts = std::vector<std::string>;

class tReceiver : public IHalManagerCallback {
 public:
  void HalManagerDeviceAddedCb(const char* udi) override {
    reported.push_back(std::string("added ") + udi);
  }
  void HalManagerDeviceRemovedCb(const char* udi) override {
    reported.push_back(std::string("removed ") + udi);
  }
  void HalManagerPropertyChangedCb(const char* udi, const char* key) override {
    reported.push_back(std::string("changed ") + udi + " " + key);
  }

  tTexts reported;
};

class HalSignals : public testing::Test {
 protected:
  void SetUp() override {
    Bus() = {};
    ConnectToScriptedBus();
    // Lives as long as the program, as the daemon's receiver does.
    static tReceiver receiver;
    m_pReceiver = &receiver;
    m_pReceiver->reported.clear();
    tHalManager::getInstance()->InstallCallback(m_pReceiver);
  }

  /// What reaches the receiver from the signal.
  tTexts Reported(const tDBusMessage& signal) {
    m_pReceiver->reported.clear();
    EXPECT_EQ(tHalManager::dBusHandler(nullptr, signal.get(), nullptr),
              DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
    return m_pReceiver->reported;
  }

  tReceiver* m_pReceiver = nullptr;
};

void AppendText(const tDBusMessage& message, const char* text) {
  dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}

/// One change: its name and flags as a structure of this signature; what is not in it is left out.
void AppendChange(DBusMessageIter* list, const std::string& signature, const char* name) {
  DBusMessageIter change;
  dbus_message_iter_open_container(list, DBUS_TYPE_STRUCT, nullptr, &change);
  for (const char type : signature) {
    const dbus_bool_t flag = FALSE;
    const void* value = type == 's' ? static_cast<const void*>(&name) : &flag;
    dbus_message_iter_append_basic(&change, type, value);
  }
  dbus_message_iter_close_container(list, &change);
}

tDBusMessage Changes(int32_t count, const tTexts& names, const std::string& signature = "sbb") {
  tDBusMessage signal = Signal(kDevice, kDeviceInterface, "PropertyModified");
  DBusMessageIter arguments;
  dbus_message_iter_init_append(signal.get(), &arguments);
  dbus_message_iter_append_basic(&arguments, DBUS_TYPE_INT32, &count);
  DBusMessageIter list;
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, ("(" + signature + ")").c_str(),
                                   &list);
  for (const std::string& name : names) AppendChange(&list, signature, name.c_str());
  dbus_message_iter_close_container(&arguments, &list);
  return signal;
}

TEST_F(HalSignals, EachChangeIsHandedOnUpToTheCountAndTheEnd) {
  const struct {
    int32_t count;
    tTexts names;
    tTexts reported;
  } cases[] = {
      {2, {"a", "b"}, {"changed /volume a", "changed /volume b"}},
      {3, {"a", "a", "a"}, {"changed /volume a", "changed /volume a", "changed /volume a"}},
      {1, {"a", "b", "c"}, {"changed /volume a"}},
      {5, {"a", "b"}, {"changed /volume a", "changed /volume b"}},
      {2147483647, {"a"}, {"changed /volume a"}},
      {0, {"a"}, {}},
      {-1, {"a"}, {}},
      {2, {"", "volume.is_mounted "}, {"changed /volume ", "changed /volume volume.is_mounted "}},
      {1, {}, {}},
  };
  for (const auto& [count, names, reported] : cases) {
    const tCapturedLog log(kLogError);
    EXPECT_THAT(Reported(Changes(count, names)), ElementsAreArray(reported)) << count;
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

TEST_F(HalSignals, ChangesOfAnotherFormAreAnErrorLine) {
  const struct {
    const char* what;
    tDBusMessage signal;
  } cases[] = {
      {"nothing", Signal(kDevice, kDeviceInterface, "PropertyModified")},
      {"a text",
       [] {
         tDBusMessage signal = Signal(kDevice, kDeviceInterface, "PropertyModified");
         AppendText(signal, "x");
         return signal;
       }()},
      {"a number alone",
       [] {
         tDBusMessage signal = Signal(kDevice, kDeviceInterface, "PropertyModified");
         const dbus_int32_t count = 1;
         dbus_message_append_args(signal.get(), DBUS_TYPE_INT32, &count, DBUS_TYPE_INVALID);
         return signal;
       }()},
      {"no flags", Changes(1, {"a"}, "s")},
      {"one flag", Changes(1, {"a"}, "sb")},
      {"a text for a flag", Changes(1, {"a"}, "sbs")},
      {"flags without a name", Changes(1, {"a"}, "bb")},
      {"two of them", Changes(2, {"a", "b"}, "ssb")},
  };
  for (const auto& [what, signal] : cases) {
    const tCapturedLog log(kLogError);
    EXPECT_THAT(Reported(signal), IsEmpty()) << what;
    EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogError, kChangeError})) << what;
  }
}

TEST_F(HalSignals, OnlyTheServicesThreeSignalsAreHandedOn) {
  const struct {
    const char* path;
    const char* interface;
    const char* member;
    tTexts reported;
  } cases[] = {
      {kManager, kManagerInterface, "DeviceAdded", {"added /volume_x"}},
      {kManager, kManagerInterface, "DeviceRemoved", {"removed /volume_x"}},
      {kManager, kManagerInterface, "NewCapability", {}},
      {kManager, kManagerInterface, "PropertyModified", {}},
      {kManager, kDeviceInterface, "DeviceAdded", {}},
      {kManager, kDeviceInterface, "DeviceRemoved", {}},
      {kDevice, kDeviceInterface, "Condition", {}},
  };
  for (const auto& [path, interface, member, reported] : cases) {
    const tDBusMessage signal = Signal(path, interface, member);
    AppendText(signal, "/volume_x");
    const tCapturedLog log(kLogError);
    EXPECT_THAT(Reported(signal), ElementsAreArray(reported)) << interface << "." << member;
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

TEST_F(HalSignals, ADeviceSignalWithoutAPathIsLogged) {
  for (const char* member : {"DeviceAdded", "DeviceRemoved"}) {
    const tCapturedLog log(kLogError);
    EXPECT_THAT(Reported(Signal(kManager, kManagerInterface, member)), IsEmpty()) << member;
    std::vector<tLogLine> lines = log.Lines();
    if (std::string(member) == "DeviceRemoved") {
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(lines[0], (tLogLine{kLogError, "dBusHandler: DeviceRemoved: arg error"}));
      lines.erase(lines.begin());
    }
    ASSERT_EQ(lines.size(), 1U) << member;
    EXPECT_THAT(lines[0].message, testing::StartsWith("org.freedesktop.DBus.Error.InvalidArgs: "));
  }
}

TEST_F(HalSignals, AreLoggedAsTheyCome) {
  const struct {
    const char* member;
    tTexts lines;
  } cases[] = {
      {"DeviceAdded",
       {"dBusHandler()",
        "dBusHandler: DeviceAdded path - /org/freedesktop/Hal/Managerinterface - "
        "org.freedesktop.Hal.Managermember - DeviceAdded"}},
      {"DeviceRemoved",
       {"dBusHandler()",
        "dBusHandler: DeviceRemoved path - /org/freedesktop/Hal/Manager interface - "
        "org.freedesktop.Hal.Manager member - DeviceRemoved",
        "dBusHandler: DeviceRemoved: calling _DeviceRemoved"}},
      {"NewCapability", {"dBusHandler()"}},
  };
  for (const auto& [member, lines] : cases) {
    const tCapturedLog log;
    const tDBusMessage signal = Signal(kManager, kManagerInterface, member);
    AppendText(signal, "/volume_x");
    static_cast<void>(Reported(signal));
    std::vector<tLogLine> expected;
    for (const std::string& line : lines) expected.push_back({kLogDebug, line});
    EXPECT_EQ(log.Lines(), expected);
  }
}

TEST_F(HalSignals, OfSomebodyElseAreDropped) {
  const struct {
    const char* sender;  // null: none
    bool straight;       // sent to this process, and not to everybody
    const char* owner;
    bool taken;
  } cases[] = {
      {":1.7", false, "", true},      {":1.7", true, ":1.7", true}, {":1.7", true, ":1.8", false},
      {":1.7", true, ":1.70", false}, {":1.7", true, "", false},    {nullptr, false, ":1.7", false},
      {nullptr, true, ":1.7", false},
  };
  for (const auto& [sender, straight, owner, taken] : cases) {
    Bus().owner = owner;
    Bus().calls.clear();
    const tDBusMessage signal = Signal(kManager, kManagerInterface, "DeviceAdded");
    AppendText(signal, "/volume_x");
    dbus_message_set_sender(signal.get(), sender);
    if (straight) dbus_message_set_destination(signal.get(), ":1.9");
    const tCapturedLog log(kLogWarning);
    EXPECT_EQ(Reported(signal).size(), taken ? 1U : 0U);
    std::vector<tLogLine> lines;
    if (!taken) {
      lines.push_back({kLogWarning, std::string("dBusHandler: DeviceAdded from ") +
                                        (sender != nullptr ? sender : "nobody") +
                                        ", who is not org.freedesktop.Hal, dropped"});
    }
    EXPECT_EQ(log.Lines(), lines);
    const bool asked = straight && sender != nullptr;
    EXPECT_EQ(Bus().calls, asked ? tTexts{"GetNameOwner DBus org.freedesktop.Hal"} : tTexts{});
  }
}

TEST_F(HalSignals, TheEndOfTheConnectionIsLogged) {
  const tCapturedLog log;
  EXPECT_THAT(Reported(Signal("/org/freedesktop/DBus/Local", DBUS_INTERFACE_LOCAL, "Disconnected")),
              IsEmpty());
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogDebug, "dBusHandler()"},
                                       tLogLine{kLogError, "HAL: Connection - lost"}));
}

}  // namespace
