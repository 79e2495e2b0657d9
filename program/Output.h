#pragma once

#include <string>

namespace program {

/// Writes the text to standard output and flushes it. Returns false, after a line on standard
/// error, on failure: a program whose output nobody reads should end.
[[nodiscard]] bool Print(const std::string& text);

/// Writes one line with the program's name to standard error.
void Complain(const std::string& text);

}  // namespace program
