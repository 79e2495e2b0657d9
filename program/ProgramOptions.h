#pragma once

#include <glib.h>

namespace program {

/// Reads a program's options. `entries` end with a null entry and name the variables to set;
/// "--help" and "--version" are added and end the program with status 0. `command` is the program's
/// command that has these options, if any.
/// False, after a line on standard error, when an option is wrong or a word is left over.
[[nodiscard]] bool ReadOptions(int argc, char* argv[], const char* summary,
                               const GOptionEntry* entries, const char* command = "");

}  // namespace program
