#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

/// Puts what one side of a TCP connection sends in order: segments may be repeated, overlap, or
/// arrive early. Bounded: holds back at most `kMaxHeldBytes`.
class TcpStream {
 public:
  static constexpr std::size_t kMaxHeldBytes = 65536;

  /// `syn` is the sequence number of the SYN segment of this side.
  explicit TcpStream(std::uint32_t syn) : next_(syn + 1) {}

  /// Adds a segment's payload. Returns the bytes that continue those returned before; none while
  /// there is a gap before them.
  [[nodiscard]] std::string Add(std::uint32_t sequence, std::string_view payload);

  /// The side has closed; `sequence` is one past that of its last byte.
  void Close(std::uint32_t sequence);

  /// True if the side has closed and all its bytes have been returned.
  [[nodiscard]] bool IsComplete() const;

  /// True if bytes are missing before others that have arrived, or before the end.
  [[nodiscard]] bool HasGap() const;

  /// True if there was no room to hold more back: the gap will not be filled any more.
  [[nodiscard]] bool IsBroken() const { return broken_; }

 private:
  /// Offset from the start of the stream. Sequence numbers wrap around: the nearest one is meant.
  [[nodiscard]] std::int64_t Offset(std::uint32_t sequence) const;
  void Hold(std::int64_t offset, std::string_view payload);
  [[nodiscard]] std::string TakeHeld();

  std::uint32_t next_;      ///< sequence number of the byte at `given_`
  std::int64_t given_ = 0;  ///< how many bytes have been returned
  std::optional<std::int64_t> end_;
  std::map<std::int64_t, std::string> held_;  ///< by offset, all beyond `given_`
  std::size_t heldBytes_ = 0;
  bool broken_ = false;
};

}  // namespace tools
