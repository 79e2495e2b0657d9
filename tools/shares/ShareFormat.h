#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "tools/shares/ShareTable.h"

namespace tools {

// How shares are shown. Every result ends with a newline and contains no other control character
// than newlines. `time` is wall-clock time.

using WallTime = std::chrono::system_clock::time_point;

/// One readable line: time, what happened, the share.
[[nodiscard]] std::string TableText(const ShareEvent& event, WallTime time);

/// One JSON object on one line: "time", "event", "sender" and the announcement's fields.
[[nodiscard]] std::string JsonText(const ShareEvent& event, WallTime time);

/// A present share, as a line without time.
[[nodiscard]] std::string TableText(const Share& share);

/// A present share, as a JSON object with the event "present".
[[nodiscard]] std::string JsonText(const Share& share, WallTime time);

/// A malformed datagram: the reason, whether units accept it all the same, and its first 256 bytes
/// below.
[[nodiscard]] std::string MalformedTableText(const std::string& sender, std::string_view datagram,
                                             const std::string& fault, WallTime time);

/// The same as a JSON object with the event "malformed" and all bytes.
[[nodiscard]] std::string MalformedJsonText(const std::string& sender, std::string_view datagram,
                                            const std::string& fault, WallTime time);

}  // namespace tools
