#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/monitor/Frame.h"
#include "tools/monitor/Message.h"

namespace tools {

/// The content of one frame and the time of its arrival. Either `message` or `fault` is set.
struct Received {
  std::chrono::system_clock::time_point time;
  std::string bytes;                ///< the frame, as received
  std::optional<std::string> text;  ///< the message text, if the frame was valid
  std::optional<Message> message;
  std::string fault;  ///< in ASCII
};

/// Parses the message in a frame.
[[nodiscard]] Received Examine(Frame frame, std::chrono::system_clock::time_point time);

}  // namespace tools
