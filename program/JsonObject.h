#pragma once

#include <charconv>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace program {

/// One JSON object, written on one line with its members in the order in which they are added.
class JsonObject {
 public:
  /// Untrusted bytes as a string in ASCII, in which each byte is the character of the same number:
  /// a reader gets the bytes back by encoding the string as Latin-1.
  JsonObject& AddBytes(std::string_view name, std::string_view bytes);

  /// Requires: valid UTF-8, here and in `AddTexts`.
  JsonObject& AddText(std::string_view name, std::string_view text);
  JsonObject& AddTexts(std::string_view name, const std::vector<std::string>& texts);

  JsonObject& AddFlag(std::string_view name, bool flag);

  template <typename T>
  JsonObject& AddNumber(std::string_view name, T number) {
    static_assert(std::is_arithmetic_v<T>);
    char digits[32];
    return Add(name, std::string(digits, std::to_chars(digits, std::end(digits), number).ptr));
  }

  JsonObject& AddObject(std::string_view name, const JsonObject& object);

  [[nodiscard]] std::string Text() const { return "{" + members_ + "}"; }
  [[nodiscard]] std::string Line() const { return Text() + "\n"; }

 private:
  JsonObject& Add(std::string_view name, std::string_view value);

  std::string members_;
};

}  // namespace program
