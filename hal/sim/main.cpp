// voldrake-halsim: the stand-in hardware service. docs/halsim.md has its language.

#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "glib/Handles.h"
#include "hal/face/DeviceTree.h"
#include "hal/face/HalService.h"
#include "hal/sim/Commands.h"
#include "hal/sim/DeviceIndex.h"
#include "hal/sim/LineOutput.h"
#include "hal/sim/LineSplitter.h"
#include "hal/sim/PluggedDevices.h"
#include "hal/sim/SimCalls.h"
#include "hal/sim/SimMounter.h"
#include "program/MainLoop.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"

namespace {

using namespace halsim;

constexpr const char* kSummary =
    "Serves org.freedesktop.Hal with simulated devices that commands on standard input control.\n"
    "The command \"help\" lists them.";

struct Options {
  std::string address;
  MountSettings mounts;
  std::vector<std::string> scripts;
  bool absent = false;
};

/// The value of an option of text or file name; a complaint instead when it is given and empty.
bool TakeText(const char* name, const glib::CharPointer& value, std::string& text) {
  if (value == nullptr) return true;
  text = value.get();
  if (text.empty()) program::Complain(std::string("the value of --") + name + " is missing");
  return !text.empty();
}

/// False, after a complaint, when the command line is wrong.
bool ReadSimOptions(int argc, char* argv[], Options& options) {
  char* address = nullptr;
  char* root = nullptr;
  char* mountCommand = nullptr;
  char* unmountCommand = nullptr;
  char** scripts = nullptr;
  gboolean absent = FALSE;
  const GOptionEntry entries[] = {
      {"address", 0, 0, G_OPTION_ARG_STRING, &address,
       "D-Bus address to connect to (default: the system bus)", "BUS"},
      {"root", 0, 0, G_OPTION_ARG_FILENAME, &root,
       "Directory that stands for / when mount points are created", "DIR"},
      {"mount-command", 0, 0, G_OPTION_ARG_FILENAME, &mountCommand,
       "Shell command that mounts something at a new mount point", "CMD"},
      {"unmount-command", 0, 0, G_OPTION_ARG_FILENAME, &unmountCommand,
       "Shell command that undoes the mount", "CMD"},
      {"file", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &scripts,
       "Commands to run before the name is taken; may be repeated", "SCRIPT"},
      {"absent", 0, 0, G_OPTION_ARG_NONE, &absent,
       "Do not take the name until the command \"return\"", nullptr},
      GOptionEntry{}};
  const bool isRead = program::ReadOptions(argc, argv, kSummary, entries);
  const glib::CharPointer ownedAddress(address);
  const glib::CharPointer ownedRoot(root);
  const glib::CharPointer ownedMountCommand(mountCommand);
  const glib::CharPointer ownedUnmountCommand(unmountCommand);
  const glib::Pointer<char*, g_strfreev> ownedScripts(scripts);
  if (!isRead) return false;
  for (char** script = scripts; script != nullptr && *script != nullptr; ++script) {
    options.scripts.emplace_back(*script);
  }
  options.absent = absent != FALSE;
  return TakeText("address", ownedAddress, options.address) &&
         TakeText("root", ownedRoot, options.mounts.root) &&
         TakeText("mount-command", ownedMountCommand, options.mounts.mountCommand) &&
         TakeText("unmount-command", ownedUnmountCommand, options.mounts.unmountCommand);
}

/// Standard input, as far as the main loop needs to know it.
struct Input {
  LineSplitter& lines;
  program::MainLoop& loop;
};

gboolean OnInput(gint descriptor, GIOCondition, gpointer data) {
  auto* input = static_cast<Input*>(data);
  std::array<char, 4096> buffer;
  const ssize_t count = read(descriptor, buffer.data(), buffer.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return G_SOURCE_CONTINUE;
  if (count > 0) {
    input->lines.Feed({buffer.data(), static_cast<std::size_t>(count)});
    return G_SOURCE_CONTINUE;
  }
  input->lines.Finish();
  input->loop.Quit();
  return G_SOURCE_REMOVE;
}

bool RunScript(const std::string& path, LineSplitter& lines) {
  std::ifstream script(path, std::ios::binary);
  std::array<char, 4096> buffer;
  while (script.read(buffer.data(), buffer.size()) || script.gcount() > 0) {
    lines.Feed({buffer.data(), static_cast<std::size_t>(script.gcount())});
  }
  lines.Finish();
  return script.eof();
}

int Fail(const std::string& text) {
  program::Complain(text);
  return EXIT_FAILURE;
}

int Serve(const Options& options, program::MainLoop& loop) {
  LineOutput output;
  hal::DeviceTree tree;
  DeviceIndex index;
  SimMounter mounter(tree, index, output, options.mounts);
  PluggedDevices devices(tree, index, mounter);
  SimCalls calls(output);
  hal::HalService service(tree, mounter, &calls, options.address, [&] {
    output.Line("disconnected");
    calls.DropDelayed();
  });
  calls.SetService(&service);
  bool quitting = false;
  Commands commands(tree, index, devices, mounter, service, calls, output, [&] {
    quitting = true;
    loop.Quit();
  });
  LineSplitter lines([&](std::string_view line, bool complete) {
    if (!quitting) commands.Run(line, complete);
  });

  if (const auto error = service.Connect()) return Fail(*error);
  for (const std::string& script : options.scripts) {
    if (!RunScript(script, lines)) return Fail("cannot read " + script);
  }
  if (quitting) return EXIT_SUCCESS;
  if (!options.absent) {
    if (const auto error = service.Return()) return Fail(*error);
  }
  output.Line("ready " + (options.absent ? "absent" : service.UniqueName()));

  Input input{lines, loop};
  g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &OnInput,
                &input);
  loop.Run();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char* argv[]) {
  g_set_prgname("voldrake-halsim");
  Options options;
  if (!ReadSimOptions(argc, argv, options)) return EXIT_FAILURE;
  std::signal(SIGPIPE, SIG_IGN);
  program::MainLoop loop;
  return Serve(options, loop);
}
