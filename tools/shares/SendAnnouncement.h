#pragma once

#include <cstdint>

namespace tools {

/// `voldrake-shares announce` and `voldrake-shares withdraw`, depending on the message type: sends
/// one datagram about one share. Returns the program's exit status.
[[nodiscard]] int SendAnnouncement(std::uint16_t type, int argc, char* argv[]);

}  // namespace tools
