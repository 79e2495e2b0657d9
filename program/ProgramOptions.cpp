#include "program/ProgramOptions.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "glib/Handles.h"
#include "program/Output.h"

namespace program {

namespace {

struct Help {
  GOptionContext* context;
  const char* command;
};

gboolean ShowVersion(const gchar*, const gchar*, gpointer, GError**) {
  std::printf("%s %s\n", g_get_prgname(), VOLDRAKE_VERSION);
  std::exit(EXIT_SUCCESS);
}

/// The library's own help knows of no commands, and its ellipsis is no ASCII.
gboolean ShowHelp(const gchar*, const gchar*, gpointer data, GError**) {
  const auto* help = static_cast<Help*>(data);
  const glib::CharPointer text(g_option_context_get_help(help->context, TRUE, nullptr));
  const std::string options = text.get();
  const std::string program = g_get_prgname();
  const std::string command = *help->command != '\0' ? std::string(" ") + help->command : "";
  std::printf("Usage: %s%s [OPTION]...\n%s", program.c_str(), command.c_str(),
              options.substr(options.find("\n\n") + 1).c_str());
  std::exit(EXIT_SUCCESS);
}

GOptionEntry Question(const char* name, char letter, GOptionArgFunc answer,
                      const char* description) {
  return {name,
          letter,
          G_OPTION_FLAG_NO_ARG,
          G_OPTION_ARG_CALLBACK,
          reinterpret_cast<gpointer>(answer),
          description,
          nullptr};
}

}  // namespace

bool ReadOptions(int argc, char* argv[], const char* summary, const GOptionEntry* entries,
                 const char* command) {
  const GOptionEntry more[] = {Question("version", 0, ShowVersion, "Show the version and exit"),
                               Question("help", 'h', ShowHelp, "Show the options and exit"),
                               GOptionEntry{}};
  const glib::Pointer<GOptionContext, g_option_context_free> context(g_option_context_new(nullptr));
  Help help{context.get(), command};
  GOptionGroup* group = g_option_group_new("main", "", "", &help, nullptr);
  g_option_group_add_entries(group, entries);
  g_option_group_add_entries(group, more);
  g_option_context_set_main_group(context.get(), group);
  g_option_context_set_help_enabled(context.get(), FALSE);
  g_option_context_set_summary(context.get(), summary);
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
