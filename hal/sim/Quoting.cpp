#include "hal/sim/Quoting.h"

#include "hal/face/Text.h"
#include "hal/sim/CommandError.h"

namespace halsim {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

std::string Quote(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (c == '\n') {
      quoted += "\\n";
    } else if (IsControl(c)) {
      const auto byte = static_cast<unsigned char>(c);
      quoted += "\\x";
      quoted += kDigits[byte >> 4];
      quoted += kDigits[byte & 0x0f];
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

std::string QuoteIfNeeded(std::string_view text) {
  for (const char c : text) {
    if (IsBlank(c) || IsControl(c) || c == '"' || c == '\'' || c == '\\') return Quote(text);
  }
  return std::string(text);
}

void WordReader::SkipBlanks() {
  while (position_ < line_.size() && IsBlank(line_[position_])) ++position_;
}

std::optional<std::string> WordReader::Next() {
  SkipBlanks();
  if (position_ == line_.size()) return std::nullopt;
  std::string word;
  while (position_ < line_.size() && !IsBlank(line_[position_])) {
    const char c = line_[position_++];
    if (c == '"' || c == '\'') {
      ReadQuoted(c, word);
    } else {
      word += c;
    }
  }
  return word;
}

void WordReader::ReadQuoted(char quote, std::string& word) {
  while (position_ < line_.size()) {
    const char c = line_[position_++];
    if (c == quote) return;
    word += (c == '\\' && quote == '"') ? ReadEscape() : c;
  }
  throw CommandError("quotes are not closed");
}

char WordReader::ReadEscape() {
  if (position_ == line_.size()) throw CommandError("quotes are not closed");
  const char c = line_[position_++];
  switch (c) {
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'r':
      return '\r';
    case '"':
    case '\\':
      return c;
    case 'x': {
      const std::string_view digits = line_.substr(position_, 2);
      const auto byte = hal::ParseNumber<unsigned char>("0x" + std::string(digits));
      if (digits.size() != 2 || !byte || *byte == 0) break;
      position_ += 2;
      return static_cast<char>(*byte);
    }
    default:
      break;
  }
  throw CommandError("unknown escape in quotes");
}

std::string WordReader::Need(std::string_view what) {
  std::optional<std::string> word = Next();
  if (!word) throw CommandError(std::string(what) + " is missing");
  return *std::move(word);
}

std::vector<std::string> WordReader::All() {
  std::vector<std::string> words;
  while (std::optional<std::string> word = Next()) words.push_back(*std::move(word));
  return words;
}

std::string_view WordReader::Rest() {
  SkipBlanks();
  std::string_view rest = line_.substr(position_);
  while (!rest.empty() && IsBlank(rest.back())) rest.remove_suffix(1);
  position_ = line_.size();
  return rest;
}

void WordReader::End() {
  const std::optional<std::string> word = Next();
  if (word) throw CommandError("unexpected " + Quote(*word));
}

}  // namespace halsim
