#pragma once

#include <string>
#include <string_view>

/// The text with each byte of every control character (below 0x20, 0x7F, and in UTF-8 U+0080 to
/// U+009F) replaced by "?", so that a text from outside can neither start a log line of its own nor
/// drive a terminal. Any thread.
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
