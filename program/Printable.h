#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace program {

/// Untrusted bytes as a text that can neither control a terminal nor begin a new line: printable
/// UTF-8 stays, a backslash is doubled, every other byte becomes "\xNN".
[[nodiscard]] std::string Printable(std::string_view bytes);

/// `Printable` in double quotes, with double quotes inside written as "\"".
[[nodiscard]] std::string Quoted(std::string_view bytes);

/// The text padded with blanks to `width` characters; a longer one is unchanged.
/// Requires: valid UTF-8.
[[nodiscard]] std::string Padded(std::string text, std::size_t width);

/// Two lowercase digits per byte, without separators.
[[nodiscard]] std::string HexDigits(std::string_view bytes);

/// Rows of sixteen bytes: offset, hexadecimal digits, ASCII characters; each row ends with a
/// newline. After `maxRows` rows, a last line says how many bytes were left out.
[[nodiscard]] std::string HexDump(std::string_view bytes, std::size_t maxRows);

}  // namespace program
