#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "hal/Commands.h"
#include "hal/DeviceTree.h"
#include "hal/HalService.h"
#include "hal/LineSplitter.h"
#include "hal/PluggedUnits.h"
#include "hal/Tape.h"
#include "hal/VolumeMounter.h"
#include "tools/GLibHandles.h"

namespace {

using namespace halsim;

constexpr const char* kUsage =
    "Usage: voldrake-halsim [--address=BUS] [--root=DIR] [--mount-command=CMD]\n"
    "                       [--unmount-command=CMD] [--file=SCRIPT]... [--absent]\n"
    "                       [--help] [--version]\n"
    "Serves org.freedesktop.Hal with devices that are plugged by commands on standard input.\n"
    "The command \"help\" lists them.\n";

struct Options {
  std::string address;
  MountSettings mounts;
  std::vector<std::string> scripts;
  bool absent = false;
};

/// Nothing when the command line is wrong.
std::optional<Options> ReadOptions(const std::vector<std::string>& arguments) {
  Options options;
  const std::map<std::string, std::string*> texts = {
      {"--address", &options.address},
      {"--root", &options.mounts.root},
      {"--mount-command", &options.mounts.mountCommand},
      {"--unmount-command", &options.mounts.unmountCommand},
  };
  for (const std::string& argument : arguments) {
    if (argument == "--absent") {
      options.absent = true;
      continue;
    }
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos || equals + 1 == argument.size()) return std::nullopt;
    const std::string name = argument.substr(0, equals);
    const std::string value = argument.substr(equals + 1);
    const auto text = texts.find(name);
    if (text != texts.end()) {
      *text->second = value;
    } else if (name == "--file") {
      options.scripts.push_back(value);
    } else {
      return std::nullopt;
    }
  }
  return options;
}

/// Standard input, as far as the main loop needs to know it.
struct Input {
  LineSplitter& lines;
  GMainLoop* loop;
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
  g_main_loop_quit(input->loop);
  return G_SOURCE_REMOVE;
}

gboolean OnTerminate(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
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
  std::fprintf(stderr, "voldrake-halsim: %s\n", text.c_str());
  return 1;
}

int Serve(const Options& options, GMainLoop* loop) {
  Tape tape;
  DeviceTree tree;
  VolumeMounter mounter(tree, tape, options.mounts);
  PluggedUnits units(tree, mounter);
  HalService service(tree, mounter, tape, options.address);
  bool quitting = false;
  Commands commands(tree, units, mounter, service, tape, [&] {
    quitting = true;
    g_main_loop_quit(loop);
  });
  LineSplitter lines([&](std::string_view line, bool complete) {
    if (!quitting) commands.Run(line, complete);
  });

  if (const auto error = service.Connect()) return Fail(*error);
  for (const std::string& script : options.scripts) {
    if (!RunScript(script, lines)) return Fail("cannot read " + script);
  }
  if (quitting) return 0;
  if (!options.absent) {
    if (const auto error = service.Return()) return Fail(*error);
  }
  tape.Line("ready " + (options.absent ? "absent" : service.UniqueName()));

  Input input{lines, loop};
  g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &OnInput,
                &input);
  g_main_loop_run(loop);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments == std::vector<std::string>{"--help"}) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (arguments == std::vector<std::string>{"--version"}) {
    std::puts("voldrake-halsim " VOLDRAKE_VERSION);
    return 0;
  }
  const std::optional<Options> options = ReadOptions(arguments);
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  const glib::MainLoopPointer loop(g_main_loop_new(nullptr, FALSE));
  g_unix_signal_add(SIGTERM, &OnTerminate, loop.get());
  g_unix_signal_add(SIGINT, &OnTerminate, loop.get());
  return Serve(*options, loop.get());
}
