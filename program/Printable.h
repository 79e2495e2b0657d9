#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace program {

/// The bytes as a text that can neither drive a terminal nor start a line of its own: what is valid
/// UTF-8 and printable stays, a backslash is doubled, every other byte becomes "\xNN". For bytes
/// from anywhere.
[[nodiscard]] std::string Printable(std::string_view bytes);

/// `Printable` between double quotes, with a double quote inside as "\"".
[[nodiscard]] std::string Quoted(std::string_view bytes);

/// The text filled up with blanks to `width` characters; a longer one stays as it is.
/// Requires: valid UTF-8.
[[nodiscard]] std::string Padded(std::string text, std::size_t width);

/// A JSON string, in ASCII, in which each byte is the character of the same number: a reader gets
/// the very bytes back by encoding the string as Latin-1.
[[nodiscard]] std::string JsonString(std::string_view bytes);

/// Two lowercase digits a byte, without separator.
[[nodiscard]] std::string HexDigits(std::string_view bytes);

/// Rows of sixteen bytes: offset, hexadecimal digits, ASCII characters; each row ends with a
/// newline. At most `maxRows` rows; a last line then says how many bytes are left out.
[[nodiscard]] std::string HexDump(std::string_view bytes, std::size_t maxRows);

}  // namespace program
