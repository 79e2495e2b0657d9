#pragma once

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halsim {

/// Decimal or, after "0x", hexadecimal; nothing when the text is anything else or out of T's range.
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

/// The text in double quotes, with the escapes that WordReader knows.
std::string Quote(std::string_view text);
/// The text as it is when it is one plain word, else quoted.
std::string QuoteIfNeeded(std::string_view text);

/// What follows the last slash; the whole text without one.
std::string BaseName(std::string_view path);

/// Reads a command line word by word; docs/halsim.md has the quoting rules.
class WordReader {
 public:
  explicit WordReader(std::string_view line) : line_(line) {}

  /// The next word, or nothing at the end. Throws CommandError on unfinished quotes or a bad
  /// escape.
  std::optional<std::string> Next();
  /// Like Next; throws CommandError naming what is missing at the end.
  std::string Need(std::string_view what);
  /// All words that are left.
  std::vector<std::string> All();
  /// Everything that is left, as it stands, without the blanks around it.
  std::string_view Rest();
  /// Throws CommandError when anything is left.
  void End();

 private:
  void SkipBlanks();
  void ReadQuoted(char quote, std::string& word);
  char ReadEscape();

  std::string_view line_;
  std::size_t position_ = 0;
};

}  // namespace halsim
