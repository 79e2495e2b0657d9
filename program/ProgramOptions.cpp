#include "program/ProgramOptions.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "glib/Handles.h"
#include "program/Output.h"

namespace program {

namespace {

gboolean ShowVersion(const gchar*, const gchar*, gpointer, GError**) {
  std::printf("%s %s\n", g_get_prgname(), VOLDRAKE_VERSION);
  std::exit(EXIT_SUCCESS);
}

GOptionEntry VersionEntry() {
  return {"version",
          0,
          G_OPTION_FLAG_NO_ARG,
          G_OPTION_ARG_CALLBACK,
          reinterpret_cast<gpointer>(ShowVersion),
          "Show the version and end",
          nullptr};
}

}  // namespace

bool ReadOptions(int argc, char* argv[], const char* summary, const GOptionEntry* entries) {
  const GOptionEntry more[] = {VersionEntry(), GOptionEntry{}};
  const glib::Pointer<GOptionContext, g_option_context_free> context(g_option_context_new(nullptr));
  g_option_context_set_summary(context.get(), summary);
  g_option_context_add_main_entries(context.get(), entries, nullptr);
  g_option_context_add_main_entries(context.get(), more, nullptr);
  glib::ErrorHolder error;
  if (!g_option_context_parse(context.get(), &argc, &argv, error.Out())) {
    Complain(error.Text());
    return false;
  }
  if (argc > 1) {
    Complain(std::string("unexpected word: ") + argv[1]);
    return false;
  }
  return true;
}

}  // namespace program
