#include "hal/face/Text.h"

#include <algorithm>

namespace hal {

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  if (text.empty()) return parts;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = text.find(separator, begin);
    if (end == std::string_view::npos) break;
    parts.emplace_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.emplace_back(text.substr(begin));
  return parts;
}

std::string Join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (std::size_t at = 0; at < parts.size(); ++at) {
    if (at > 0) text += separator;
    text += parts[at];
  }
  return text;
}

bool Contains(const std::vector<std::string>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string BaseName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace hal
