#pragma once

#include <chrono>
#include <string>

namespace tools {

/// How a connection to the display application can go wrong.
enum class Mishap {
  Refused,  ///< nothing listens on the port
  Waiting,  ///< not accepted for a while: the application's queue is full
  Late,     ///< the application keeps the connection open for too long after the message
  Lost,     ///< the application closed before it had read everything
};

/// One mishap, observed beside the application. `message` and `path` describe the message affected;
/// both are empty if none was seen on the connection.
struct Incident {
  std::chrono::system_clock::time_point time;
  Mishap mishap;
  std::string reason;   ///< in ASCII
  std::string message;  ///< "arrival" or "removal"
  std::string path;     ///< as the message has it, any bytes
};

}  // namespace tools
