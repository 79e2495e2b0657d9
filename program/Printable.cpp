#include "program/Printable.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>

namespace program {

namespace {

constexpr std::size_t kRowBytes = 16;

std::string HexByte(char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  return {kDigits[value >> 4], kDigits[value & 0x0F]};
}

/// The length of the printable character that the bytes begin with, 0 when they begin otherwise.
/// Requires: at least one byte.
std::size_t PrintableLength(std::string_view bytes) {
  const gunichar character =
      g_utf8_get_char_validated(bytes.data(), static_cast<gssize>(bytes.size()));
  if (character >= 0x110000 || !g_unichar_isprint(character)) return 0;
  return static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
}

std::string DumpRow(std::string_view bytes, std::size_t offset) {
  char head[24];
  std::snprintf(head, sizeof head, "%08zx ", offset);
  std::string row = head;
  std::string characters;
  for (std::size_t column = 0; column < kRowBytes; ++column) {
    if (column == kRowBytes / 2) row += ' ';
    if (offset + column >= bytes.size()) {
      row += "   ";
      continue;
    }
    const char byte = bytes[offset + column];
    row += ' ' + HexByte(byte);
    characters += byte >= 0x20 && byte < 0x7F ? byte : '.';
  }
  return row + "  |" + characters + "|\n";
}

}  // namespace

std::string Printable(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const std::size_t length = PrintableLength(bytes);
    if (bytes.front() == '\\') {
      text += "\\\\";
    } else if (length != 0) {
      text += bytes.substr(0, length);
    } else {
      text += "\\x" + HexByte(bytes.front());
    }
    bytes.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return text;
}

std::string Quoted(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : Printable(bytes)) {
    if (c == '"') text += '\\';
    text += c;
  }
  return text + "\"";
}

std::string Padded(std::string text, std::size_t width) {
  const auto length = static_cast<std::size_t>(g_utf8_strlen(text.c_str(), -1));
  if (length < width) text.append(width - length, ' ');
  return text;
}

std::string HexDigits(std::string_view bytes) {
  std::string digits;
  digits.reserve(2 * bytes.size());
  for (const char byte : bytes) digits += HexByte(byte);
  return digits;
}

std::string HexDump(std::string_view bytes, std::size_t maxRows) {
  std::string dump;
  std::size_t offset = 0;
  for (; offset < bytes.size() && offset / kRowBytes < maxRows; offset += kRowBytes) {
    dump += DumpRow(bytes, offset);
  }
  if (offset < bytes.size()) {
    dump += "... and " + std::to_string(bytes.size() - offset) + " more bytes\n";
  }
  return dump;
}

}  // namespace program
