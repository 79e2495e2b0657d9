#pragma once

#include <glib.h>

namespace program {

/// Parses a program's options. `entries` end with a null entry and name the variables to set;
/// "--help" and "--version" are added and end the program with status 0. `command` is the program's
/// command to which these options belong, if any.
/// Returns false, after a line on standard error, if an option is invalid or a word is left over.
[[nodiscard]] bool ReadOptions(int argc, char* argv[], const char* summary,
                               const GOptionEntry* entries, const char* command = "");

}  // namespace program
