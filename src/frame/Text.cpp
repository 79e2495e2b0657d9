#include "frame/Text.h"

#include <algorithm>

namespace {

/// The control characters U+0080 to U+009F, in UTF-8.
bool IsC1Control(unsigned char first, unsigned char second) {
  return first == 0xC2 && second >= 0x80 && second <= 0x9F;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string printable(text);
  std::replace_if(
      printable.begin(), printable.end(),
      [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, '?');
  auto control = printable.begin();
  while ((control = std::adjacent_find(control, printable.end(), IsC1Control)) != printable.end()) {
    control = std::fill_n(control, 2, '?');
  }
  return printable;
}

std::string_view WithoutTrailingSpace(std::string_view text) {
  return text.substr(0, text.find_last_not_of(" \t\n\v\f\r") + 1);
}
