#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halsim {

/// The text in double quotes, with the escapes that WordReader knows.
std::string Quote(std::string_view text);
/// The text unchanged if it is one plain word, else quoted.
std::string QuoteIfNeeded(std::string_view text);

/// Parses a command line word by word; docs/halsim.md has the quoting rules.
class WordReader {
 public:
  explicit WordReader(std::string_view line) : line_(line) {}

  /// The next word; nullopt at the end. Throws CommandError on an unterminated quote or an invalid
  /// escape.
  std::optional<std::string> Next();
  /// Like Next, but at the end throws a CommandError that names what is missing.
  std::string Need(std::string_view what);
  /// All remaining words.
  std::vector<std::string> All();
  /// The rest of the line, unparsed, without the blanks around it.
  std::string_view Rest();
  /// Throws CommandError if anything remains.
  void End();

 private:
  void SkipBlanks();
  void ReadQuoted(char quote, std::string& word);
  char ReadEscape();

  std::string_view line_;
  std::size_t position_ = 0;
};

}  // namespace halsim
