#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tools {

/// One end of a TCP connection, numbers in host order.
struct Endpoint {
  std::uint32_t address = 0;
  std::uint16_t port = 0;

  auto operator<=>(const Endpoint&) const = default;
};

/// One TCP segment. The payload lasts as long as the packet that it was read from.
struct Segment {
  Endpoint from;
  Endpoint to;
  std::uint32_t sequence = 0;
  bool syn = false;
  bool ack = false;
  bool fin = false;
  bool rst = false;
  std::string_view payload{};
};

/// Reads an Ethernet frame, which is what the loopback interface carries too. Nothing when it is
/// not an IPv4 packet with one whole TCP segment in it; what was captured of a longer packet, and
/// fragments, are none. Any bytes are accepted.
[[nodiscard]] std::optional<Segment> ReadSegment(std::string_view packet);

}  // namespace tools
