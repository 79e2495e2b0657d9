#include "hal/sim/ShellCommand.h"

#include <unistd.h>

#include <cstdio>

#include "glib/Handles.h"

namespace halsim {

bool RunShell(const std::string& command,
              const std::vector<std::pair<std::string, std::string>>& environment) {
  const glib::ObjectPointer<GSubprocessLauncher> launcher(
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
  // The launcher owns the descriptor.
  g_subprocess_launcher_take_stdout_fd(launcher.get(), dup(STDERR_FILENO));
  for (const auto& [name, value] : environment) {
    g_subprocess_launcher_setenv(launcher.get(), name.c_str(), value.c_str(), TRUE);
  }
  const char* const arguments[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  glib::ErrorHolder error;
  const glib::ObjectPointer<GSubprocess> process(
      g_subprocess_launcher_spawnv(launcher.get(), arguments, error.Out()));
  if (!process || !g_subprocess_wait_check(process.get(), nullptr, error.Out())) {
    std::fprintf(stderr, "voldrake-halsim: %s: %s\n", command.c_str(), error.Text());
    return false;
  }
  return true;
}

}  // namespace halsim
