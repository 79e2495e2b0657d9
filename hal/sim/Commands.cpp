#include "hal/sim/Commands.h"

#include <glib.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "hal/face/Text.h"
#include "hal/sim/CommandError.h"
#include "hal/sim/MessageBody.h"
#include "hal/sim/PropertyText.h"

namespace halsim {
namespace {

constexpr unsigned kMaxMs = 3600000;

unsigned NeedMs(WordReader& words) {
  const std::string text = words.Need("MS");
  const std::optional<unsigned> ms = hal::ParseNumber<unsigned>(text);
  if (!ms || *ms > kMaxMs) {
    throw CommandError(Quote(text) + " is not a number of milliseconds up to " +
                       std::to_string(kMaxMs));
  }
  return *ms;
}

void ThrowIfRefused(const SimMounter::Outcome& refused) {
  if (refused) {
    throw CommandError(hal::FaultName(refused->fault) + (": " + refused->text));
  }
}

void ThrowIfFailed(const std::optional<std::string>& failure) {
  if (failure) throw CommandError(*failure);
}

}  // namespace

struct Commands::Entry {
  std::string_view name;
  const char* usage;
  bool canBeQuiet;
  void (Commands::*run)(WordReader& words, bool quiet);
};

const Commands::Entry Commands::kEntries[] = {
    {"plug", "plug usb|sd|host|reader|scsi|volume NAME [KEY=VALUE]...", true, &Commands::Plug},
    {"pull", "pull NAME|TARGET", true, &Commands::Pull},
    {"set", "set TARGET KEY=TYPE:VALUE|KEY=unset...", true, &Commands::Set},
    {"mount", "mount TARGET [NAME|/PATH] [ro]", true, &Commands::Mount},
    {"unmount", "unmount TARGET", true, &Commands::Unmount},
    {"remount", "remount TARGET ro|rw", true, &Commands::Remount},
    {"quiet", "quiet COMMAND", false, &Commands::Quiet},
    {"gap", "gap storage|volume|removal MS", false, &Commands::Gap},
    {"emit", "emit [to=:1.N] PATH INTERFACE MEMBER [GVARIANT]", false, &Commands::Emit},
    {"delay", "delay METHOD[:ARG] MS", false, &Commands::DelayCall},
    {"fail", "fail METHOD[:ARG] ERROR [TEXT]", false, &Commands::FailCall},
    {"answer", "answer METHOD[:ARG] GVARIANT", false, &Commands::AnswerCall},
    {"ignore", "ignore METHOD[:ARG]", false, &Commands::IgnoreCall},
    {"forget", "forget", false, &Commands::ForgetFaults},
    {"drop", "drop [answer|name]", false, &Commands::Drop},
    {"return", "return", false, &Commands::Return},
    {"list", "list", false, &Commands::List},
    {"show", "show TARGET", false, &Commands::Show},
    {"help", "help", false, &Commands::Help},
    {"quit", "quit", false, &Commands::Quit},
};

Commands::Commands(hal::DeviceTree& tree, const DeviceIndex& index, PluggedDevices& devices,
                   SimMounter& mounter, hal::HalService& service, SimCalls& calls,
                   LineOutput& output, std::function<void()> quit)
    : tree_(tree),
      index_(index),
      plugged_(devices),
      mounter_(mounter),
      service_(service),
      calls_(calls),
      output_(output),
      plug_(tree, devices, output),
      quit_(std::move(quit)) {}

void Commands::Run(std::string_view line, bool complete) {
  try {
    if (!complete) throw CommandError("the line is too long");
    if (line.find('\0') != std::string_view::npos) throw CommandError("the line has a NUL byte");
    if (!g_utf8_validate(line.data(), static_cast<gssize>(line.size()), nullptr)) {
      throw CommandError("the line is not UTF-8");
    }
    WordReader words(line);
    const std::string_view text = WordReader(line).Rest();
    if (text.empty() || text.starts_with('#')) return;
    Dispatch(words, false);
    output_.Line("ok");
  } catch (const CommandError& error) {
    output_.Line("error: " + std::string(error.what()));
  }
}

void Commands::Dispatch(WordReader& words, bool quiet) {
  const std::string name = words.Need("the command");
  const Entry* const entry = std::ranges::find(kEntries, name, &Entry::name);
  if (entry == std::end(kEntries)) throw CommandError("unknown command " + Quote(name));
  if (quiet && !entry->canBeQuiet) throw CommandError(Quote(name) + " cannot be quiet");
  (this->*entry->run)(words, quiet);
}

std::string Commands::TargetPath(WordReader& words) {
  return plugged_.Target(words.Need("TARGET")).udi;
}

void Commands::Plug(WordReader& words, bool quiet) {
  plug_.Run(words, quiet);
}

void Commands::Pull(WordReader& words, bool quiet) {
  const std::string target = words.Need("NAME");
  words.End();
  if (target.find_first_of(":/") == std::string::npos) {
    plugged_.Pull(target, quiet);
  } else {
    plugged_.PullVolumes(plugged_.Target(target));
  }
}

void Commands::Set(WordReader& words, bool) {
  const std::string udi = TargetPath(words);
  hal::PropertyEdits edits;
  for (const std::string& word : words.All()) edits.push_back(ParseEdit(word));
  if (edits.empty()) throw CommandError("KEY=TYPE:VALUE is missing");
  tree_.Modify(udi, edits);
}

void Commands::Mount(WordReader& words, bool) {
  const std::string udi = TargetPath(words);
  std::string place = words.Next().value_or("");
  bool readOnly = place == "ro";
  if (readOnly) place.clear();
  if (const std::optional<std::string> mode = words.Next()) {
    if (*mode != "ro" || readOnly) throw CommandError("unexpected " + Quote(*mode));
    readOnly = true;
  }
  words.End();
  ThrowIfRefused(mounter_.MountOutside(udi, place, readOnly));
}

void Commands::Unmount(WordReader& words, bool) {
  const std::string udi = TargetPath(words);
  words.End();
  ThrowIfRefused(mounter_.UnmountOutside(udi));
}

void Commands::Remount(WordReader& words, bool) {
  const std::string udi = TargetPath(words);
  const std::string mode = words.Need("ro or rw");
  words.End();
  if (mode != "ro" && mode != "rw") throw CommandError(Quote(mode) + " is neither ro nor rw");
  ThrowIfRefused(mounter_.RemountOutside(udi, mode == "ro"));
}

void Commands::Quiet(WordReader& words, bool) {
  const hal::DeviceTree::Silence silence(tree_);
  Dispatch(words, true);
}

void Commands::Gap(WordReader& words, bool) {
  const std::string where = words.Need("storage, volume or removal");
  const unsigned ms = NeedMs(words);
  words.End();
  Gaps& gaps = plugged_.CurrentGaps();
  if (where == "storage") {
    gaps.storageMs = ms;
  } else if (where == "volume") {
    gaps.volumeMs = ms;
  } else if (where == "removal") {
    gaps.removalMs = ms;
  } else {
    throw CommandError("there is no gap " + Quote(where));
  }
}

void Commands::Emit(WordReader& words, bool) {
  std::string path = words.Need("PATH");
  std::string destination;
  if (path.starts_with("to=")) {
    destination = path.substr(3);
    if (!g_dbus_is_unique_name(destination.c_str())) {
      throw CommandError(Quote(destination) + " is not a valid unique bus name");
    }
    path = words.Need("PATH");
  }
  const std::string interface = words.Need("INTERFACE");
  const std::string member = words.Need("MEMBER");
  glib::VariantPointer body = ParseMessageBody(std::string(words.Rest()));
  if (!g_variant_is_object_path(path.c_str())) {
    throw CommandError(Quote(path) + " is not a valid object path");
  }
  if (!g_dbus_is_interface_name(interface.c_str())) {
    throw CommandError(Quote(interface) + " is not a valid interface name");
  }
  if (!g_dbus_is_member_name(member.c_str())) {
    throw CommandError(Quote(member) + " is not a valid member name");
  }
  ThrowIfFailed(service_.EmitRaw(destination, path, interface, member, std::move(body)));
}

void Commands::DelayCall(WordReader& words, bool) {
  const std::string call = words.Need("METHOD");
  const unsigned ms = NeedMs(words);
  words.End();
  calls_.Faults().Add(call, Delay{ms});
}

void Commands::FailCall(WordReader& words, bool) {
  const std::string call = words.Need("METHOD");
  const std::string error = words.Need("ERROR");
  const std::string text = hal::Join(words.All(), " ");
  // Error names follow the rules of interface names.
  if (!g_dbus_is_interface_name(error.c_str())) {
    throw CommandError(Quote(error) + " is not a valid error name");
  }
  calls_.Faults().Add(call, Refusal{error, text});
}

void Commands::AnswerCall(WordReader& words, bool) {
  const std::string call = words.Need("METHOD");
  glib::VariantPointer values = ParseMessageBody(std::string(words.Rest()));
  if (!values) throw CommandError("GVARIANT is missing");
  calls_.Faults().Add(call, OddAnswer{std::move(values)});
}

void Commands::IgnoreCall(WordReader& words, bool) {
  const std::string call = words.Need("METHOD");
  words.End();
  calls_.Faults().Add(call, Silent{});
}

void Commands::ForgetFaults(WordReader& words, bool) {
  words.End();
  calls_.Faults().Clear();
}

void Commands::Drop(WordReader& words, bool) {
  const std::string how = words.Next().value_or("");
  words.End();
  if (how == "name") {
    service_.GiveUpName();
  } else if (how.empty() || how == "answer") {
    if (how == "answer") calls_.ServeDelayed();
    calls_.DropDelayed();
    service_.Leave();
  } else {
    throw CommandError("drop takes answer or name, not " + Quote(how));
  }
}

void Commands::Return(WordReader& words, bool) {
  words.End();
  ThrowIfFailed(service_.Return());
}

void Commands::List(WordReader& words, bool) {
  words.End();
  for (const hal::Device& device : tree_.Devices()) {
    const DeviceLabel& label = index_.Of(device.udi);
    const std::string name = label.role.empty() ? "-" : label.plugged + ":" + label.role;
    output_.Line("device " + name + " " + device.udi);
  }
}

void Commands::Show(WordReader& words, bool) {
  const hal::Device& device = plugged_.Target(words.Need("TARGET"));
  words.End();
  for (const auto& [key, value] : device.properties) {
    output_.Line("property " + key + "=" + FormatPropertyValue(value));
  }
}

void Commands::Help(WordReader& words, bool) {
  words.End();
  for (const Entry& entry : kEntries) output_.Line(std::string("usage ") + entry.usage);
}

void Commands::Quit(WordReader& words, bool) {
  words.End();
  quit_();
}

}  // namespace halsim
