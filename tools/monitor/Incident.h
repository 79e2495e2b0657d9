#pragma once

#include <chrono>
#include <string>

namespace tools {

/// What became of a connection to the display application, other than a message that was delivered.
enum class Mishap {
  Refused,  ///< nobody listens
  Waiting,  ///< nobody has answered for a while: the application's queue is full
  Late,     ///< the application has not closed the connection for a while after the message
  Lost,     ///< the application went before it had read everything
};

/// One mishap, seen beside the application. `message` and `path` tell of the message concerned;
/// both are empty when none was seen on the connection.
struct Incident {
  std::chrono::system_clock::time_point time;
  Mishap mishap;
  std::string reason;   ///< in ASCII
  std::string message;  ///< "arrival" or "removal"
  std::string path;     ///< bytes of the message
};

}  // namespace tools
