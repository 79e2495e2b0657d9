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

/// One frame as it was received.
struct Frame {
  std::string bytes;  ///< as they came, header included
  std::string text;   ///< the payload's low bytes; empty when there is a fault
  std::string fault;  ///< in ASCII, why the frame is not well formed; empty when it is
};

/// Checks and decodes what should be exactly one frame. Any bytes are accepted; what is not a whole
/// frame comes back with its fault.
[[nodiscard]] Frame DecodeFrame(std::string bytes);

/// Cuts the bytes of one connection into frames. Holds at most `kMaxFrameBytes`.
///
/// The first length field alone says where a frame ends. When that length cannot be, the ends of
/// all later frames are unknown too: everything from there on belongs to one faulty frame, which
/// `Rest` gives when the connection ends or `Room` is used up.
class FrameReader {
 public:
  /// How many bytes more may be appended. After `Next` has come back empty, 0 means that no frame
  /// can come any more.
  [[nodiscard]] std::size_t Room() const { return kMaxFrameBytes - buffer_.size(); }

  /// True when bytes wait for the rest of their frame.
  [[nodiscard]] bool HasBytes() const { return !buffer_.empty(); }

  /// Requires: at most `Room()` bytes.
  void Append(std::string_view bytes);

  /// The next frame that is complete, well formed or not; nothing while none is.
  [[nodiscard]] std::optional<Frame> Next();

  /// What stands after the last complete frame, as a faulty frame; nothing when no byte does.
  [[nodiscard]] std::optional<Frame> Rest();

 private:
  std::string buffer_;
};

}  // namespace tools
