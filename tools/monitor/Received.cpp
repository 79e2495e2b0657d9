#include "tools/monitor/Received.h"

#include <utility>

namespace tools {

Received Examine(Frame frame, std::chrono::system_clock::time_point time) {
  Received received{time, std::move(frame.bytes), std::nullopt, std::nullopt, {}};
  if (!frame.fault.empty()) {
    received.fault = std::move(frame.fault);
    return received;
  }
  std::string fault;
  received.message = ParseMessage(frame.text, fault);
  if (!received.message) received.fault = "the text is not a valid message: " + fault;
  received.text = std::move(frame.text);
  return received;
}

}  // namespace tools
