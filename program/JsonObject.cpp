#include "program/JsonObject.h"

namespace program {

// By hand: json-glib ends a string at its first zero byte and writes 0x1F as it is.

namespace {

std::string Escape(char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  return {'\\', 'u', '0', '0', kDigits[value >> 4], kDigits[value & 0x0F]};
}

/// Escapes control characters, quotes and backslashes; with `inAscii` also every byte beyond ASCII.
std::string String(std::string_view text, bool inAscii) {
  std::string json = "\"";
  for (const char c : text) {
    const auto value = static_cast<unsigned char>(c);
    if (value < 0x20 || value == 0x7F || (inAscii && value > 0x7F)) {
      json += Escape(c);
      continue;
    }
    if (c == '"' || c == '\\') json += '\\';
    json += c;
  }
  return json + "\"";
}

}  // namespace

JsonObject& JsonObject::AddBytes(std::string_view name, std::string_view bytes) {
  return Add(name, String(bytes, true));
}

JsonObject& JsonObject::AddText(std::string_view name, std::string_view text) {
  return Add(name, String(text, false));
}

JsonObject& JsonObject::AddTexts(std::string_view name, const std::vector<std::string>& texts) {
  std::string array;
  for (const std::string& text : texts) array += (array.empty() ? "" : ",") + String(text, false);
  return Add(name, "[" + array + "]");
}

JsonObject& JsonObject::AddFlag(std::string_view name, bool flag) {
  return Add(name, flag ? "true" : "false");
}

JsonObject& JsonObject::AddObject(std::string_view name, const JsonObject& object) {
  return Add(name, object.Text());
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view value) {
  if (!members_.empty()) members_ += ',';
  members_ += String(name, false);
  members_ += ':';
  members_ += value;
  return *this;
}

}  // namespace program
