#include "support/CapturedLog.h"

#include <algorithm>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string_view>

namespace {

int LevelOf(const std::string& prefix) {
  if (prefix == "Error:  ") return kLogError;
  if (prefix == "Warning:") return kLogWarning;
  if (prefix == "Log:    ") return kLogInfo;
  if (prefix == "Debug:  ") return kLogDebug;
  return 0;
}

bool IsTimeOfDay(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const bool fits = i % 3 == 2 ? text[i] == ':' : text[i] >= '0' && text[i] <= '9';
    if (!fits) return false;
  }
  return true;
}

tLogLine Parsed(const std::string& text) {
  constexpr size_t kTimeBytes = 8;
  constexpr size_t kPrefixBytes = 8;
  constexpr std::string_view kIdent = ": Voldrake: ";
  constexpr size_t kHeadBytes = kTimeBytes + kIdent.size();
  if (text.size() < kHeadBytes + kPrefixBytes || !IsTimeOfDay(text.substr(0, kTimeBytes)) ||
      text.compare(kTimeBytes, kIdent.size(), kIdent) != 0) {
    return {0, text};
  }
  return {LevelOf(text.substr(kHeadBytes, kPrefixBytes)), text.substr(kHeadBytes + kPrefixBytes)};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const tLogLine& line) {
  return out << "level " << line.level << ": " << line.message;
}

tCapturedLog::tCapturedLog(int level) {
  SetLogFile(Path());
  SetLogLevel(level);
}

tCapturedLog::~tCapturedLog() {
  SetLogFile("");
  SetLogLevel(0);
}

std::string tCapturedLog::Text() const {
  std::ostringstream text;
  text << std::ifstream(Path(), std::ios::binary).rdbuf();
  return text.str();
}

std::vector<tLogLine> tCapturedLog::Lines() const {
  std::vector<tLogLine> lines;
  std::ifstream file(Path(), std::ios::binary);
  for (std::string line; std::getline(file, line);) lines.push_back(Parsed(line));
  return lines;
}

bool tCapturedLog::Holds(int level, const std::string& message) const {
  const std::vector<tLogLine> lines = Lines();
  return std::find(lines.begin(), lines.end(), tLogLine{level, message}) != lines.end();
}
