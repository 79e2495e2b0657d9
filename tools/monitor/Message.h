#pragma once

#include <optional>
#include <string>

namespace tools {

/// One data-source message. Texts are the daemon's byte strings, with the XML escapes undone.
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

/// Reads a message text, given as bytes of Latin-1. A text is refused, with `fault` set to an ASCII
/// reason, when it is not well-formed XML, holds anything besides the three elements of a message,
/// lacks an attribute, or has one too many, twice, or with a value that it cannot have.
[[nodiscard]] std::optional<Message> ParseMessage(const std::string& text, std::string& fault);

}  // namespace tools
