#pragma once

#include <string>

#include "tools/monitor/Incident.h"
#include "tools/monitor/Received.h"

namespace tools {

// The three ways in which the monitor shows what it received. Every result ends with a newline and
// holds no control character besides newlines.

/// One readable line. What is not well formed has its reason on the line and the first 256 bytes
/// below it.
[[nodiscard]] std::string TableText(const Received& received);

/// One JSON object on one line: "time", "well_formed", then the attributes and "text", or "reason",
/// "bytes" (in hexadecimal) and, when the frame was right, "text".
[[nodiscard]] std::string JsonText(const Received& received);

/// A line with the time and what came, then all bytes of the frame as a dump.
[[nodiscard]] std::string RawText(const Received& received);

/// One readable line: what happened, the message concerned and the reason.
[[nodiscard]] std::string TableText(const Incident& incident);

/// One JSON object on one line: "time", "incident", "reason" and, when a message is concerned, its
/// "message" and "path".
[[nodiscard]] std::string JsonText(const Incident& incident);

}  // namespace tools
