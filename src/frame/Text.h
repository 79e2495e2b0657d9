#pragma once

#include <string>
#include <string_view>

/// The text with every control character (below 0x20, and 0x7F) replaced by "?", so that a text
/// from outside can neither start a log line of its own nor drive a terminal. Any thread.
[[nodiscard]] std::string Printable(std::string_view text);

/// The text without the white space at its end. It lasts as long as the text.
[[nodiscard]] std::string_view WithoutTrailingSpace(std::string_view text);

/// "true" or "false".
[[nodiscard]] inline const char* BoolText(bool value) {
  return value ? "true" : "false";
}

/// "1" or "0", the form in which the log shows flags.
[[nodiscard]] inline const char* FlagText(bool value) {
  return value ? "1" : "0";
}
