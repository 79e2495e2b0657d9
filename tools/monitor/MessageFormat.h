#pragma once

#include <string>

#include "tools/monitor/Incident.h"
#include "tools/monitor/Received.h"

namespace tools {

// The three forms in which the monitor shows what it received. Every result ends with a newline and
// contains no other control character than newlines.

/// One readable line. Anything malformed is shown with the reason on that line and its first 256
/// bytes below.
[[nodiscard]] std::string TableText(const Received& received);

/// One JSON object on one line: "time", "well_formed", then the attributes and "text", or "reason",
/// "bytes" (in hexadecimal) and, if the frame was valid, "text".
[[nodiscard]] std::string JsonText(const Received& received);

/// A line with the time and the kind of message, then a dump of all bytes of the frame.
[[nodiscard]] std::string RawText(const Received& received);

/// One readable line: what happened, the message affected and the reason.
[[nodiscard]] std::string TableText(const Incident& incident);

/// One JSON object on one line: "time", "incident", "reason" and, if a message is affected,
/// "message" and "path".
[[nodiscard]] std::string JsonText(const Incident& incident);

}  // namespace tools
