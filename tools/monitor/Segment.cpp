#include "tools/monitor/Segment.h"

#include <cstddef>

namespace tools {

namespace {

constexpr std::size_t kEthernetBytes = 14;
constexpr std::size_t kMinIpBytes = 20;
constexpr std::size_t kMinTcpBytes = 20;
constexpr std::uint32_t kEtherTypeIpv4 = 0x0800;
constexpr unsigned kProtocolTcp = 6;
/// Of the field with the fragment's offset: everything but the flag that forbids fragments.
constexpr std::uint32_t kFragmentMask = 0xBFFF;

enum tFlag : unsigned { kFin = 0x01, kSyn = 0x02, kRst = 0x04, kAck = 0x10 };

unsigned Byte(std::string_view bytes, std::size_t offset) {
  return static_cast<unsigned char>(bytes[offset]);
}

std::uint32_t Number(std::string_view bytes, std::size_t offset, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t index = 0; index < count; ++index) {
    value = (value << 8) | Byte(bytes, offset + index);
  }
  return value;
}

/// The header's length in bytes, which is counted in words of four.
std::size_t HeaderBytes(unsigned words) {
  return std::size_t{4} * (words & 0x0F);
}

/// What an IPv4 packet carries, cut to the length that it gives; nothing unless it is a whole TCP
/// segment.
std::optional<std::string_view> TcpPart(std::string_view ip) {
  if (ip.size() < kMinIpBytes || Byte(ip, 0) >> 4 != 4) return std::nullopt;
  const std::size_t header = HeaderBytes(Byte(ip, 0));
  const std::size_t total = Number(ip, 2, 2);
  const bool isFragment = (Number(ip, 6, 2) & kFragmentMask) != 0;
  if (header < kMinIpBytes || total < header || total > ip.size()) return std::nullopt;
  if (isFragment || Byte(ip, 9) != kProtocolTcp) return std::nullopt;
  return ip.substr(header, total - header);
}

}  // namespace

std::optional<Segment> ReadSegment(std::string_view packet) {
  if (packet.size() < kEthernetBytes || Number(packet, 12, 2) != kEtherTypeIpv4) {
    return std::nullopt;
  }
  const std::string_view ip = packet.substr(kEthernetBytes);
  const auto tcp = TcpPart(ip);
  if (!tcp || tcp->size() < kMinTcpBytes) return std::nullopt;
  const std::size_t header = HeaderBytes(Byte(*tcp, 12) >> 4);
  if (header < kMinTcpBytes || header > tcp->size()) return std::nullopt;

  const unsigned flags = Byte(*tcp, 13);
  return Segment{
      .from = {Number(ip, 12, 4), static_cast<std::uint16_t>(Number(*tcp, 0, 2))},
      .to = {Number(ip, 16, 4), static_cast<std::uint16_t>(Number(*tcp, 2, 2))},
      .sequence = Number(*tcp, 4, 4),
      .syn = (flags & kSyn) != 0,
      .ack = (flags & kAck) != 0,
      .fin = (flags & kFin) != 0,
      .rst = (flags & kRst) != 0,
      .payload = tcp->substr(header),
  };
}

}  // namespace tools
