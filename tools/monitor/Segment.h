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

/// One TCP segment. The payload points into the packet from which it was read.
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

/// Parses an Ethernet frame, the format that the loopback interface has too. Accepts any bytes.
/// Returns nullopt unless it is an IPv4 packet with one whole TCP segment: fragments and packets
/// that were captured in part are rejected.
[[nodiscard]] std::optional<Segment> ReadSegment(std::string_view packet);

}  // namespace tools
