#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// The frame that carries one message text of n bytes to the display application:
//
//   offset  size  field
//   0       2     big-endian: the number of bytes that follow this field, 4 + 2n
//   2       2     zero
//   4       2     big-endian: the payload's length in bytes, 2n
//   6       2n    for each byte of the text a zero byte and the byte, as in big-endian UTF-16
//
// The lengths hold the low 15 bits of n. A two-byte zero follows in the buffer and is not sent.

/// The longest text that fits the buffer.
inline constexpr size_t kMaxMessageBytes = 8190;

using tFrameBuffer = std::array<uint8_t, 6 + 2 * kMaxMessageBytes + 2>;

/// Writes the frame of `text` and returns the number of bytes to send, 6 + 2n.
/// Requires: text.size() <= kMaxMessageBytes.
[[nodiscard]] size_t EncodeFrame(std::string_view text, tFrameBuffer& frame);
