#include "tools/monitor/Frame.h"

#include <cstdio>
#include <utility>

namespace tools {

namespace {

constexpr std::size_t kLengthBytes = 2;
constexpr std::size_t kMinFollowing = kFrameHeaderBytes - kLengthBytes;
constexpr std::size_t kMaxFollowing = kMaxFrameBytes - kLengthBytes;

unsigned Number(std::string_view bytes, std::size_t offset) {
  const auto high = static_cast<unsigned char>(bytes[offset]);
  const auto low = static_cast<unsigned char>(bytes[offset + 1]);
  return (unsigned{high} << 8) | low;
}

std::string FourDigits(unsigned value) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%04x", value);
  return digits;
}

bool IsPossible(std::size_t following) {
  return following >= kMinFollowing && following <= kMaxFollowing;
}

std::string LengthFault(std::string_view bytes) {
  if (bytes.empty()) return "no byte was sent";
  if (bytes.size() < kLengthBytes) return "the frame ends within its first length field";
  const std::size_t following = Number(bytes, 0);
  if (!IsPossible(following)) {
    return "the first length field is " + std::to_string(following) + ", a frame has " +
           std::to_string(kMinFollowing) + " to " + std::to_string(kMaxFollowing);
  }
  if (bytes.size() != kLengthBytes + following) {
    return "the frame has " + std::to_string(bytes.size()) + " bytes instead of " +
           std::to_string(kLengthBytes + following);
  }
  return {};
}

/// Requires: a frame without length fault.
std::string HeaderFault(std::string_view bytes) {
  if (const unsigned second = Number(bytes, 2); second != 0) {
    return "the second field is " + FourDigits(second) + " instead of zero";
  }
  const std::size_t payload = Number(bytes, 4);
  if (payload != bytes.size() - kFrameHeaderBytes) {
    return "the payload length is " + std::to_string(payload) + ", but " +
           std::to_string(bytes.size() - kFrameHeaderBytes) + " bytes follow it";
  }
  if (payload % 2 != 0) return "the payload length " + std::to_string(payload) + " is odd";
  return {};
}

}  // namespace

Frame DecodeFrame(std::string bytes) {
  Frame frame{std::move(bytes), {}, {}};
  frame.fault = LengthFault(frame.bytes);
  if (frame.fault.empty()) frame.fault = HeaderFault(frame.bytes);
  if (!frame.fault.empty()) return frame;

  frame.text.reserve(frame.bytes.size() / 2);
  for (std::size_t at = kFrameHeaderBytes; at < frame.bytes.size(); at += 2) {
    if (frame.bytes[at] != 0) {
      frame.fault = "code unit " + std::to_string(frame.text.size()) + " is " +
                    FourDigits(Number(frame.bytes, at)) + ", above 00ff";
      frame.text.clear();
      break;
    }
    frame.text += frame.bytes[at + 1];
  }
  return frame;
}

void FrameReader::Append(std::string_view bytes) {
  buffer_ += bytes;
}

std::optional<Frame> FrameReader::Next() {
  if (buffer_.size() < kLengthBytes) return std::nullopt;
  const std::size_t following = Number(buffer_, 0);
  if (!IsPossible(following) || buffer_.size() < kLengthBytes + following) return std::nullopt;
  Frame frame = DecodeFrame(buffer_.substr(0, kLengthBytes + following));
  buffer_.erase(0, kLengthBytes + following);
  return frame;
}

std::optional<Frame> FrameReader::Rest() {
  if (buffer_.empty()) return std::nullopt;
  return DecodeFrame(std::exchange(buffer_, {}));
}

}  // namespace tools
