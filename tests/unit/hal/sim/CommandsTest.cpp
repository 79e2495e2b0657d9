#include "hal/sim/Commands.h"

#include <gmock/gmock.h>

#include "hal/face/HalNames.h"
#include "hal/face/Text.h"

using testing::ElementsAre;

namespace {

using Texts = std::vector<std::string>;

/// A service that is not connected to any bus. Nothing of it is mounted.
class Commands : public testing::Test {
 protected:
  Commands() { calls_.SetService(&service_); }

  /// The lines that answer this one.
  Texts Answer(std::string_view line, bool complete = true) {
    testing::internal::CaptureStdout();
    commands_.Run(line, complete);
    std::string text = testing::internal::GetCapturedStdout();
    if (!text.empty()) text.pop_back();
    return hal::Split(text, '\n');
  }

  /// The properties that "show" lists, one a line.
  std::string Shown(const std::string& target) {
    return "\n" + hal::Join(Answer("show " + target), "\n") + "\n";
  }

  halsim::LineOutput output_;
  hal::DeviceTree tree_;
  halsim::DeviceIndex index_;
  halsim::SimMounter mounter_{tree_, index_, output_, {"/nowhere", "", ""}};
  halsim::PluggedDevices devices_{tree_, index_, mounter_};
  halsim::SimCalls calls_{output_};
  hal::HalService service_{tree_, mounter_, &calls_, "unix:path=/nowhere", [] {}};
  int quits_ = 0;
  halsim::Commands commands_{tree_,    index_, devices_, mounter_,
                             service_, calls_, output_,  [this] { ++quits_; }};
};

TEST_F(Commands, ABadLineIsAnsweredAndChangesNothing) {
  const std::string root = hal::kRootDevice;
  const struct {
    std::string line;
    std::string error;
  } kTable[] = {
      {"nonsense", R"(unknown command "nonsense")"},
      {"Plug usb a", R"(unknown command "Plug")"},
      {R"("" x)", R"(unknown command "")"},
      {"plug", "what to plug is missing"},
      {"plug usb", "NAME is missing"},
      {"plug moon m", R"(cannot plug "moon")"},
      {"plug usb a/b", R"("a/b" is not a valid name: use letters, digits, _ and -)"},
      {R"(plug usb "")", R"("" is not a valid name: use letters, digits, _ and -)"},
      {"plug usb a color=red", R"(unknown key "color")"},
      {"plug usb a luns=2", R"(unknown key "luns")"},
      {"plug usb a serial=1 serial=2", R"("serial" is given twice)"},
      {"plug usb a vendor=65536", "vendor=65536 is not a number from 0 to 65535"},
      {"plug usb a product=-1", "product=-1 is not a number from 0 to 65535"},
      {"plug usb a vendor=99999999999999999999",
       "vendor=99999999999999999999 is not a number from 0 to 65535"},
      {"plug usb a vendor=0x-1", "vendor=0x-1 is not a number from 0 to 65535"},
      {"plug usb a scsi-host=10000", "scsi-host=10000 is not a number from 0 to 9999"},
      {"plug usb a partitions=16", "partitions=16 is not a number from 0 to 15"},
      {"plug usb a whole-disk partitions=1", "whole-disk has no partitions"},
      {"plug usb a size=x", "size=x is not a size in bytes"},
      {"plug usb a port=", R"("" is not a valid USB port)"},
      {"plug usb a port=1", R"("1" is not a valid USB port)"},
      {"plug usb a port=1-", R"("1-" is not a valid USB port)"},
      {"plug usb a port=-1", R"("-1" is not a valid USB port)"},
      {"plug usb a port=1-1.", R"("1-1." is not a valid USB port)"},
      {"plug usb a port=1-1.x", R"("1-1.x" is not a valid USB port)"},
      {"plug usb a port=x-1", R"("x-1" is not a valid USB port)"},
      {"plug usb a card/x=int:1", R"(the new devices have no "card")"},
      {"plug usb a volume/x=float:1", R"(unknown type "float")"},
      {"plug usb a volume/x=bool:maybe", R"("maybe" is not a bool)"},
      {R"(plug usb a label="x)", "quotes are not closed"},
      {R"(plug usb a label="\q")", "unknown escape in quotes"},
      {"plug reader a luns=0", "luns=0 is not a number from 1 to 16"},
      {"plug reader a luns=17", "luns=17 is not a number from 1 to 16"},
      {"plug sd a host=10000", "host=10000 is not a number from 0 to 9999"},
      {"plug sd a rca=65536", "rca=65536 is not a number from 0 to 65535"},
      {"plug host a cards-on=moon", "cards-on must be host or controller"},
      {"plug volume a", R"(nothing plugged is called "a")"},
      {"pull", "NAME is missing"},
      {"pull a", R"(nothing plugged is called "a")"},
      {"pull a b", R"(unexpected "b")"},
      {"pull /nowhere", R"(there is no device "/nowhere")"},
      {"set /nowhere x=int:1", R"(there is no device "/nowhere")"},
      {"set " + root, "KEY=TYPE:VALUE is missing"},
      {"set " + root + " x=int:2147483648", R"("2147483648" is not of type int)"},
      {"mount /nowhere", R"(there is no device "/nowhere")"},
      {"mount " + root + " a rw", R"(unexpected "rw")"},
      {"mount " + root + " ro ro", R"(unexpected "ro")"},
      {"mount " + root + " a ro x", R"(unexpected "x")"},
      {"unmount /nowhere", R"(there is no device "/nowhere")"},
      {"unmount " + root + " x", R"(unexpected "x")"},
      {"remount " + root, "ro or rw is missing"},
      {"remount " + root + " moon", R"("moon" is neither ro nor rw)"},
      {"remount " + root + " ro x", R"(unexpected "x")"},
      {"quiet", "the command is missing"},
      {"quiet list", R"("list" cannot be quiet)"},
      {"quiet quiet plug usb a", R"("quiet" cannot be quiet)"},
      {"gap", "storage, volume or removal is missing"},
      {"gap moon 1", R"(there is no gap "moon")"},
      {"gap volume", "MS is missing"},
      {"gap volume 1 2", R"(unexpected "2")"},
      {"gap volume 3600001", R"("3600001" is not a number of milliseconds up to 3600000)"},
      {"gap volume -1", R"("-1" is not a number of milliseconds up to 3600000)"},
      {"delay Mount 1 x", R"(unexpected "x")"},
      {"delay Mount soon", R"("soon" is not a number of milliseconds up to 3600000)"},
      {"fail Mount", "ERROR is missing"},
      {"fail Mount Busy", R"("Busy" is not a valid error name)"},
      {"answer Mount", "GVARIANT is missing"},
      {"answer Mount 5", "the value is not a tuple: a tuple of one is written (VALUE,)"},
      {"ignore", "METHOD is missing"},
      {"ignore Mount x", R"(unexpected "x")"},
      {"forget x", R"(unexpected "x")"},
      {"emit /a a.b", "MEMBER is missing"},
      {"emit /a/ a.b M", R"("/a/" is not a valid object path)"},
      {"emit /a a M", R"("a" is not a valid interface name)"},
      {"emit /a a.b 1", R"("1" is not a valid member name)"},
      {"emit to=moon /a a.b M", R"("moon" is not a valid unique bus name)"},
      {"emit /a a.b M 5", "the value is not a tuple: a tuple of one is written (VALUE,)"},
      {"emit /a a.b M", "the service is not connected"},
      {"drop moon", R"(drop takes answer or name, not "moon")"},
      {"drop name x", R"(unexpected "x")"},
      {"return x", R"(unexpected "x")"},
      {"list all", R"(unexpected "all")"},
      {"show", "TARGET is missing"},
      {"show a b", R"(nothing plugged is called "a")"},
      {"show " + root + " b", R"(unexpected "b")"},
      {"help me", R"(unexpected "me")"},
      {"quit now", R"(unexpected "now")"},
      {std::string("a\0b", 3), "the line has a NUL byte"},
      {"plug usb \xFF\xFE", "the line is not UTF-8"},
  };
  for (const auto& [line, error] : kTable) {
    EXPECT_THAT(Answer(line), ElementsAre("error: " + error)) << line;
  }
  EXPECT_THAT(Answer("list", false), ElementsAre("error: the line is too long"));
  EXPECT_THAT(Answer("list"), ElementsAre("device - " + root, "ok"));
  EXPECT_EQ(quits_, 0);
}

TEST_F(Commands, AnEmptyLineAndACommentAreNotAnswered) {
  for (const char* line : {"", "  \t", "# plug usb a", "  #", "#quit"}) {
    EXPECT_THAT(Answer(line), testing::IsEmpty()) << line;
  }
}

TEST_F(Commands, TwoDevicesCannotBeInOnePlace) {
  static_cast<void>(Answer("plug usb stick port=1-1 scsi-host=3"));
  static_cast<void>(Answer("plug sd card host=1"));
  const Texts before = Answer("list");
  const struct {
    const char* line;
    const char* error;
  } kTable[] = {
      {"plug usb stick", R"(there is a "stick" already)"},
      {"plug usb b port=1-1", R"(port 1-1 is taken by "stick")"},
      {"plug usb b scsi-host=3", "SCSI host 3 is taken"},
      {"plug sd b host=1", R"(there is a card in this host: "card")"},
      {"plug host b number=1", "there is an SD host 1 already"},
      {"plug volume stick partition=1", R"(there is a "volume1" already)"},
      {"plug volume stick partition=256", "partition=256 is not a number from 1 to 255"},
      {"plug volume stick whole-disk partition=2", "whole-disk has no partition"},
      {"plug volume stick lun=1", R"("stick" has no disk with lun 1)"},
  };
  for (const auto& [line, error] : kTable) {
    EXPECT_THAT(Answer(line), ElementsAre(std::string("error: ") + error)) << line;
  }
  EXPECT_THAT(Answer("pull host1"), ElementsAre(testing::HasSubstr("there is a card in it")));
  EXPECT_EQ(Answer("list"), before);
}

TEST_F(Commands, WhatIsPluggedIsListedParentsFirst) {
  const std::string prefix = "device stick:";
  const Texts lines = Answer("plug usb stick uuid=AA partitions=2");
  Texts roles;
  for (const std::string& line : lines) {
    if (!line.starts_with(prefix)) continue;
    roles.push_back(line.substr(prefix.size(), line.rfind(' ') - prefix.size()));
  }
  EXPECT_THAT(roles, ElementsAre("usb_device", "usb_interface", "scsi_host", "scsi_device",
                                 "storage", "volume1", "volume2"));
  EXPECT_EQ(lines.back(), "ok");
}

TEST_F(Commands, DevicesTakeTheFirstFreePlaces) {
  for (const char* line : {"plug usb a", "plug usb b", "plug reader c luns=2", "plug sd d",
                           "plug volume a", "plug volume a whole-disk"}) {
    EXPECT_EQ(Answer(line).back(), "ok") << line;
  }
  const struct {
    const char* target;
    const char* property;
  } kTable[] = {
      {"a", "block.device=string:/dev/sda1"},
      {"a:volume2", "block.device=string:/dev/sda2"},
      {"a:volume0", "block.device=string:/dev/sda"},
      {"b", "block.device=string:/dev/sdb1"},
      {"b:scsi_device", "scsi.host=int:1"},
      {"c:storage@0", "block.device=string:/dev/sdc"},
      {"c:storage@1", "block.device=string:/dev/sdd"},
      {"c:scsi_device@1", "scsi.lun=int:1"},
      {"d", "block.device=string:/dev/mmcblk0p1"},
      {"host0:host", "mmc_host.host=int:0"},
      {"a:storage", "block.major=int:8"},
      {"b:storage", "block.minor=int:16"},
      {"d:storage", "block.major=int:179"},
      {"d", "block.minor=int:1"},
  };
  for (const auto& [target, property] : kTable) {
    EXPECT_NE(Shown(target).find(std::string("\nproperty ") + property + "\n"), std::string::npos)
        << target << Shown(target);
  }
  EXPECT_NE(Shown("b:scsi_host").find("/1-1.2/1-1.2:1.0/host1\n"), std::string::npos);
  EXPECT_EQ(Answer("pull a").back(), "ok");
  static_cast<void>(Answer("plug usb e"));
  EXPECT_NE(Shown("e").find("\nproperty block.device=string:/dev/sda1\n"), std::string::npos);
}

TEST_F(Commands, TheSameStickHasTheSameIdentityEachTime) {
  static_cast<void>(Answer("plug usb stick"));
  const std::string first = Shown("stick");
  static_cast<void>(Answer("pull stick"));
  static_cast<void>(Answer("plug usb other"));
  static_cast<void>(Answer("pull other"));
  static_cast<void>(Answer("plug usb stick"));
  EXPECT_EQ(Shown("stick"), first);
  static_cast<void>(Answer("plug usb other"));
  EXPECT_NE(Shown("other"), first);
}

TEST_F(Commands, AnyPropertyCanBeReplacedAndTakenAway) {
  static_cast<void>(Answer("plug usb stick volume/volume.label=unset storage/x=strlist:a,b"));
  EXPECT_EQ(Shown("stick").find("volume.label"), std::string::npos);
  const struct {
    const char* plugged;
    const char* target;
  } kTable[] = {
      {"plug host slot host/x=int:1", "slot:host"},
      {"plug reader rd luns=1 storage@0/x=int:1", "rd:storage@0"},
      {"plug volume rd volume@0/x=int:1", "rd"},
      {"plug scsi disk storage/x=int:1", "disk:storage"},
      {"plug sd card card/x=int:1", "card:card"},
  };
  for (const auto& [plugged, target] : kTable) {
    EXPECT_EQ(Answer(plugged).back(), "ok") << plugged;
    EXPECT_NE(Shown(target).find("\nproperty x=int:1\n"), std::string::npos) << target;
  }
  EXPECT_NE(Shown("stick:storage").find("\nproperty x=strlist:a,b\n"), std::string::npos);
  EXPECT_EQ(Answer("set stick volume.label=string:\"A B\" y=double:0.5 x=unset").back(), "ok");
  EXPECT_NE(Shown("stick").find("\nproperty volume.label=string:\"A B\"\n"), std::string::npos);
  EXPECT_NE(Shown("stick").find("\nproperty y=double:0.5\n"), std::string::npos);
}

TEST_F(Commands, HelpNamesEveryCommandAndQuitEnds) {
  const Texts lines = Answer("help");
  for (const char* name : {"plug", "pull",   "set",   "mount", "unmount", "remount", "quiet",
                           "gap",  "emit",   "delay", "fail",  "answer",  "ignore",  "forget",
                           "drop", "return", "list",  "show",  "help",    "quit"}) {
    EXPECT_TRUE(std::ranges::any_of(lines, [name](const std::string& line) {
      return (line + " ").starts_with(std::string("usage ") + name + " ");
    })) << name;
  }
  EXPECT_EQ(lines.size(), 21U);
  EXPECT_THAT(Answer("quit"), ElementsAre("ok"));
  EXPECT_EQ(quits_, 1);
}

}  // namespace
