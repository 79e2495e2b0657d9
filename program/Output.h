#pragma once

#include <string>

namespace program {

/// Writes the text to standard output and flushes it. False, after a line on standard error, when
/// that fails: a program that nobody hears should end.
[[nodiscard]] bool Print(const std::string& text);

/// Writes one line with the program's name to standard error.
void Complain(const std::string& text);

}  // namespace program
