#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

// The frame in which the daemon sends one message text of n bytes, all numbers big-endian:
//
//   offset  size  field
//   0       2     number of bytes that follow this field: 4 + 2n
//   2       2     zero
//   4       2     payload length in bytes: 2n
//   6       2n    the text, one UTF-16 code unit for each byte, its high byte zero
//
// A text has at most 8,190 bytes.

inline constexpr std::size_t kFrameHeaderBytes = 6;
inline constexpr std::size_t kMaxTextBytes = 8190;
inline constexpr std::size_t kMaxFrameBytes = kFrameHeaderBytes + 2 * kMaxTextBytes;

/// One frame, as received.
struct Frame {
  std::string bytes;  ///< as received, header included
  std::string text;   ///< the payload's low bytes; empty if there is a fault
  std::string fault;  ///< in ASCII, why the frame is not well formed; empty if it is
};

/// Checks and decodes what should be exactly one frame. Accepts any bytes; returns anything but one
/// whole frame with its fault set.
[[nodiscard]] Frame DecodeFrame(std::string bytes);

/// Splits the bytes of one connection into frames. Holds at most `kMaxFrameBytes`.
///
/// Only the first length field says where a frame ends. If that length is impossible, the ends of
/// all later frames are unknown too: everything from there on is one faulty frame, which `Rest`
/// returns once the connection has ended or `Room` is used up.
class FrameReader {
 public:
  /// How many more bytes may be appended. 0 after `Next` has returned nullopt means that there will
  /// be no more frames.
  [[nodiscard]] std::size_t Room() const { return kMaxFrameBytes - buffer_.size(); }

  /// True while bytes wait for the rest of their frame.
  [[nodiscard]] bool HasBytes() const { return !buffer_.empty(); }

  /// Requires: at most `Room()` bytes.
  void Append(std::string_view bytes);

  /// The next complete frame, well formed or not; nullopt if there is none yet.
  [[nodiscard]] std::optional<Frame> Next();

  /// The bytes after the last complete frame, as a faulty frame; nullopt if there are none.
  [[nodiscard]] std::optional<Frame> Rest();

 private:
  std::string buffer_;
};

}  // namespace tools
