#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halsim {

/// The text in double quotes, with the escapes that WordReader knows.
std::string Quote(std::string_view text);
/// The text as it is when it is one plain word, else quoted.
std::string QuoteIfNeeded(std::string_view text);

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
