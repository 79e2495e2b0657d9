#include "hal/kernel/StateFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TemporaryDirectory.h"

namespace halkernel {
namespace {

State Sample() {
  State state;
  state.objects = {
      {"usb_device /sys/a", "", "usb_device_90c_1000_AA99", "", {}},
      {"storage /sys/a/sda S", "usb_device /sys/a", "storage_serial_S", "", {}},
      {"volume /sys/a/sda/sda1 7 vfat 0000-060C",
       "storage /sys/a/sda S",
       "volume_uuid_0000_060C",
       "/dev/sda1",
       {"/media/sda1", true, false}},
      {"volume /sys/a/sda/sda2 7 vfat", "storage /sys/a/sda S", "volume_label_x", "/dev/sda2", {}},
  };
  state.directories = {"sda1", "a;b"};
  return state;
}

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  const std::size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

TEST(State, IsReadAsItWasWritten) {
  EXPECT_EQ(ParseState(FormatState(Sample())).state, Sample());
  EXPECT_EQ(ParseState(FormatState(State())).state, State());
}

TEST(State, BytesOfAnyKindComeBack) {
  State state = Sample();
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  state.objects[2].mount.place = "/" + bytes;
  state.objects[2].node = "/dev/" + bytes;
  state.directories = {Replaced(bytes, "/", ""), " blank ", ";", "\\;\n[object 0]"};
  EXPECT_EQ(ParseState(FormatState(state)).state, state);
}

TEST(State, ContentThatCannotBeIsRefusedWithAReason) {
  const std::string good = FormatState(Sample());
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"empty", ""},
      {"no key file", "hello"},
      {"no head", Replaced(good, "[state]", "[other]")},
      {"another version", Replaced(good, "version=1", "version=2")},
      {"no version", Replaced(good, "version=1", "")},
      {"no number", Replaced(good, "version=1", "version=one")},
      {"no list of directories", Replaced(good, "directories=", "other=")},
      {"a directory elsewhere", Replaced(good, "directories=sda1", "directories=../etc")},
      {"a directory above", Replaced(good, "directories=sda1", "directories=..")},
      {"the directory itself", Replaced(good, "directories=sda1", "directories=.")},
      {"no name", Replaced(good, "name=storage_serial_S", "")},
      {"a name that is no path", Replaced(good, "storage_serial_S", "storage serial")},
      {"a name with an empty part", Replaced(good, "storage_serial_S", "storage//S")},
      {"the root's name", Replaced(good, "storage_serial_S", "computer")},
      {"an empty name", Replaced(good, "name=storage_serial_S", "name=")},
      {"an empty key", Replaced(good, "key=usb_device /sys/a", "key=")},
      {"a name twice", Replaced(good, "volume_label_x", "storage_serial_S")},
      {"a key twice", Replaced(good, "key=storage /sys/a/sda S", "key=usb_device /sys/a")},
      {"a parent that is not there", Replaced(good, "parent=usb_device", "parent=other")},
      {"a node elsewhere", Replaced(good, "node=/dev/sda1", "node=/etc/passwd")},
      {"mounted nowhere", Replaced(good, "place=/media/sda1", "place=")},
      {"mounted at a relative place", Replaced(good, "place=/media/sda1", "place=media")},
      {"no flag", Replaced(good, "mounted=true", "mounted=perhaps")},
      {"half an escape", Replaced(good, "place=/media/sda1", "place=/media\\\\")},
      {"a key that is not printable", Replaced(good, "key=storage ", "key=\\\\001storage ")},
  };
  for (const auto& [what, content] : rows) {
    const ParsedState parsed = ParseState(content);
    EXPECT_EQ(parsed.state, std::nullopt) << what;
    EXPECT_FALSE(parsed.fault.empty()) << what;
  }
}

TEST(State, EveryPrefixIsRefusedOrIsAStateOfFewerObjects) {
  const std::string good = FormatState(Sample());
  for (std::size_t length = 0; length < good.size(); ++length) {
    const ParsedState parsed = ParseState(good.substr(0, length));
    if (!parsed.state) continue;
    EXPECT_LE(parsed.state->objects.size(), Sample().objects.size());
  }
}

TEST(StateFile, IsReplacedAsAWholeAndReadBack) {
  const tTemporaryDirectory directory;
  StateFile file(directory.Path("state"));
  EXPECT_EQ(file.Read(), std::nullopt);
  file.Write(Sample());
  EXPECT_EQ(StateFile(directory.Path("state")).Read(), Sample());
  file.Write(State());
  EXPECT_EQ(file.Read(), State());
  struct stat status {};
  ASSERT_EQ(stat(directory.Path("state").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(StateFile, WhatIsNoFileIsAFirstStart) {
  const tTemporaryDirectory directory;
  directory.MakeDirectory("state");
  EXPECT_EQ(StateFile(directory.Path("state")).Read(), std::nullopt);
  directory.Write("other", "[state\n");
  EXPECT_EQ(StateFile(directory.Path("other")).Read(), std::nullopt);
  directory.Write("huge", std::string(9 * 1024 * 1024, '#'));
  EXPECT_EQ(StateFile(directory.Path("huge")).Read(), std::nullopt);
}

TEST(StateFile, AWriteThatFailsIsSurvivedAndTriedAgain) {
  const tTemporaryDirectory directory;
  StateFile file(directory.Path("later/state"));
  file.Write(Sample());
  EXPECT_FALSE(directory.Holds("later/state"));
  directory.MakeDirectory("later");
  file.Write(Sample());
  EXPECT_EQ(file.Read(), Sample());
}

}  // namespace
}  // namespace halkernel
