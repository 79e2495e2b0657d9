#include "frame/Text.h"

#include <algorithm>

std::string Printable(std::string_view text) {
  std::string printable(text);
  std::replace_if(
      printable.begin(), printable.end(),
      [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, '?');
  return printable;
}

std::string_view WithoutTrailingSpace(std::string_view text) {
  return text.substr(0, text.find_last_not_of(" \t\n\v\f\r") + 1);
}
