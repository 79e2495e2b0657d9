#pragma once

#include <cstdint>

namespace tools {

/// `voldrake-shares announce` and `voldrake-shares withdraw`, by the message type: sends the
/// announcement of one share. Comes back with the program's exit status.
[[nodiscard]] int SendAnnouncement(std::uint16_t type, int argc, char* argv[]);

}  // namespace tools
