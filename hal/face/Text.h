#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hal {

/// Parses a decimal or, after "0x", hexadecimal number; nullopt if the text is anything else or out
/// of T's range.
template <typename T>
std::optional<T> ParseNumber(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x")) {
    text.remove_prefix(2);
    base = 16;
    if (text.starts_with('-')) return std::nullopt;
  }
  T value{};
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, base);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

/// The parts between the separators; an empty text has no parts.
std::vector<std::string> Split(std::string_view text, char separator);
std::string Join(const std::vector<std::string>& parts, std::string_view separator);

bool Contains(const std::vector<std::string>& texts, std::string_view text);

/// The part after the last slash; the whole text if there is none.
std::string BaseName(std::string_view path);

}  // namespace hal
