#include "tools/monitor/Message.h"

#include <glib.h>

#include <cstdio>
#include <map>
#include <string_view>
#include <utility>

#include "glib/Handles.h"

namespace tools {

namespace {

using Attributes = std::map<std::string, std::string>;

/// GLib's own encoder: g_convert would need a module of the C library for this, which an image may
/// lack.
std::string Utf8FromLatin1(std::string_view bytes) {
  std::string utf8;
  utf8.reserve(bytes.size());
  for (const char byte : bytes) {
    char character[6];
    const int length = g_unichar_to_utf8(static_cast<unsigned char>(byte), character);
    utf8.append(character, static_cast<std::size_t>(length));
  }
  return utf8;
}

/// Requires: valid UTF-8. Returns nullopt if a character is not in Latin-1.
std::optional<std::string> Latin1FromUtf8(const char* utf8) {
  std::string bytes;
  for (const char* at = utf8; *at != '\0'; at = g_utf8_next_char(at)) {
    const gunichar character = g_utf8_get_char(at);
    if (character > 0xFF) return std::nullopt;
    bytes += static_cast<char>(character);
  }
  return bytes;
}

/// The text with typographic quotes made plain and every other character beyond ASCII as "?".
std::string Ascii(const char* utf8) {
  std::string ascii;
  for (const char* at = utf8; *at != '\0'; at = g_utf8_next_char(at)) {
    const gunichar character = g_utf8_get_char(at);
    if (character == 0x2018 || character == 0x2019) {
      ascii += '\'';
    } else if (character == 0x201C || character == 0x201D) {
      ascii += '"';
    } else {
      ascii += character < 0x80 ? static_cast<char>(character) : '?';
    }
  }
  return ascii;
}

bool IsControl(char byte) {
  return static_cast<unsigned char>(byte) < 0x20;
}

/// Whether XML can carry the byte, be it as a character reference.
bool IsXmlCharacter(char byte) {
  return !IsControl(byte) || byte == '\t' || byte == '\n' || byte == '\r';
}

std::string ControlFault(char byte) {
  char text[48];
  std::snprintf(text, sizeof text, "it contains a control character (0x%02x)",
                unsigned{static_cast<unsigned char>(byte)});
  return text;
}

/// What GLib's parser lets pass although XML does not: control characters, "<" inside a tag, and an
/// attribute that follows a value without a blank.
std::string LexicalFault(std::string_view text) {
  bool inTag = false;
  char quote = '\0';
  bool afterValue = false;
  for (const char c : text) {
    if (IsControl(c)) return ControlFault(c);
    if (inTag && c == '<') return "there is a \"<\" inside a tag";
    if (afterValue && std::string_view(" />?").find(c) == std::string_view::npos) {
      return "there is no blank before an attribute";
    }
    afterValue = quote != '\0' && c == quote;
    if (afterValue) {
      quote = '\0';
    } else if (quote == '\0') {
      if (inTag && (c == '"' || c == '\'')) quote = c;
      if (c == '<') inTag = true;
      if (c == '>') inTag = false;
    }
  }
  return {};
}

/// Takes named values out of an element's attributes and remembers the first fault.
class AttributeReader {
 public:
  AttributeReader(std::string element, Attributes attributes)
      : element_(std::move(element)), attributes_(std::move(attributes)) {}

  std::string Text(const char* name) {
    const auto found = attributes_.find(name);
    if (found == attributes_.end()) {
      Fail(std::string("has no attribute \"") + name + "\"");
      return {};
    }
    std::string value = std::move(found->second);
    attributes_.erase(found);
    return value;
  }

  std::string OneOf(const char* name, const char* first, const char* second) {
    std::string value = Text(name);
    if (value != first && value != second) {
      Fail(std::string("has an attribute \"") + name + "\" that is neither \"" + first +
           "\" nor \"" + second + "\"");
    }
    return value;
  }

  bool Flag(const char* name) { return OneOf(name, "true", "false") == "true"; }

  /// Why the attributes are not the right ones; empty when they are. Call it last: what was not
  /// taken is not expected there.
  std::string Fault() {
    if (!attributes_.empty()) Fail("has an attribute that does not belong there");
    return fault_;
  }

 private:
  void Fail(const std::string& what) {
    if (fault_.empty()) fault_ = "element \"" + element_ + "\" " + what;
  }

  std::string element_;
  Attributes attributes_;
  std::string fault_;
};

/// Builds a message from the parser's events: message > content > dataarrival or dataremoval.
class MessageBuilder {
 public:
  /// The empty text, or why the element cannot stand here.
  std::string Open(const std::string& element, Attributes attributes) {
    const int depth = depth_++;
    if (depth != opened_) return "element \"" + element + "\" is one too many";
    ++opened_;
    AttributeReader reader(element, std::move(attributes));
    if (depth == 0 && element == "message") {
      reader.OneOf("version", "1", "1");
      reader.OneOf("type", "datasource", "datasource");
    } else if (depth == 2 && element == "dataarrival") {
      ReadArrival(reader);
    } else if (depth == 2 && element == "dataremoval") {
      message_.path = reader.Text("path");
    } else if (depth != 1 || element != "content") {
      return "element \"" + element + "\" does not belong there";
    }
    return reader.Fault();
  }

  void Close() { --depth_; }

  [[nodiscard]] bool IsComplete() const { return opened_ == 3; }
  [[nodiscard]] const Message& Result() const { return message_; }

 private:
  void ReadArrival(AttributeReader& reader) {
    message_.arrival = true;
    message_.path = reader.Text("path");
    message_.type = reader.OneOf("type", "memorycard", "harddrive");
    message_.key = reader.Text("key");
    message_.contentId = reader.Text("contentid");
    message_.serialNumber = reader.Text("serialnumber");
    message_.friendlyName = reader.Text("friendlyname");
    message_.remote = reader.Flag("remote");
    message_.readOnly = reader.Flag("readonly");
    message_.fixed = reader.Flag("fixed");
  }

  Message message_;
  int depth_ = 0;
  int opened_ = 0;
};

void Refuse(GError** error, const std::string& reason) {
  g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT, reason.c_str());
}

void OnStart(GMarkupParseContext*, const char* element, const char** names, const char** values,
             void* builder, GError** error) {
  Attributes attributes;
  for (; *names != nullptr; ++names, ++values) {
    auto value = Latin1FromUtf8(*values);
    if (!value) return Refuse(error, "a character reference is above 255");
    for (const char c : *value) {
      if (!IsXmlCharacter(c)) return Refuse(error, ControlFault(c));
    }
    if (!attributes.emplace(*names, std::move(*value)).second) {
      return Refuse(error, std::string("attribute \"") + *names + "\" occurs twice");
    }
  }
  const std::string fault =
      static_cast<MessageBuilder*>(builder)->Open(element, std::move(attributes));
  if (!fault.empty()) Refuse(error, fault);
}

void OnEnd(GMarkupParseContext*, const char*, void* builder, GError**) {
  static_cast<MessageBuilder*>(builder)->Close();
}

void OnText(GMarkupParseContext*, const char*, gsize length, void*, GError** error) {
  if (length != 0) Refuse(error, "there is text outside the tags");
}

void OnPassthrough(GMarkupParseContext*, const char*, gsize, void*, GError** error) {
  Refuse(error, "it contains a declaration or a comment");
}

constexpr GMarkupParser kParser = {OnStart, OnEnd, OnText, OnPassthrough, nullptr};

}  // namespace

std::optional<Message> ParseMessage(const std::string& text, std::string& fault) {
  fault = LexicalFault(text);
  if (!fault.empty()) return std::nullopt;

  MessageBuilder builder;
  const std::string utf8 = Utf8FromLatin1(text);
  const glib::Pointer<GMarkupParseContext, g_markup_parse_context_unref> context(
      g_markup_parse_context_new(&kParser, GMarkupParseFlags(0), &builder, nullptr));
  glib::ErrorHolder error;
  if (!g_markup_parse_context_parse(context.get(), utf8.data(), static_cast<gssize>(utf8.size()),
                                    error.Out()) ||
      !g_markup_parse_context_end_parse(context.get(), error.Out())) {
    fault = Ascii(error.Text());
    return std::nullopt;
  }
  if (!builder.IsComplete()) {
    fault = "an element is missing";
    return std::nullopt;
  }
  return builder.Result();
}

}  // namespace tools
