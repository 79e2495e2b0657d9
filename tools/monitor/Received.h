#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/monitor/Frame.h"
#include "tools/monitor/Message.h"

namespace tools {

/// What one frame brought and when. It is well formed when there is a message, otherwise there is a
/// fault.
struct Received {
  std::chrono::system_clock::time_point time;
  std::string bytes;                ///< the frame as it came
  std::optional<std::string> text;  ///< the message text, when the frame around it is right
  std::optional<Message> message;
  std::string fault;  ///< in ASCII
};

/// Reads the message in a frame.
[[nodiscard]] Received Examine(Frame frame, std::chrono::system_clock::time_point time);

}  // namespace tools
