#pragma once

#include <optional>
#include <string>

namespace tools {

/// One data-source message. Texts are the daemon's byte strings, with XML escapes decoded.
struct Message {
  bool arrival =
      false;  ///< "dataarrival"; otherwise "dataremoval", which has a path and nothing else
  std::string path;
  std::string type;  ///< "memorycard" or "harddrive"
  std::string key;
  std::string contentId;
  std::string serialNumber;
  std::string friendlyName;
  bool remote = false;
  bool readOnly = false;
  bool fixed = false;
};

/// Parses a message text, which is untrusted and in Latin-1. Returns nullopt and sets `fault` to an
/// ASCII reason if the text is not well-formed XML, contains anything but the three elements of a
/// message, or if an attribute is missing, unknown, repeated or has an invalid value.
[[nodiscard]] std::optional<Message> ParseMessage(const std::string& text, std::string& fault);

}  // namespace tools
