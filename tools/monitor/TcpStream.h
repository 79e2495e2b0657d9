#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

/// Puts what one side of a TCP connection sends in order: segments may come again, overlap, and
/// come before those that they follow. Bounded: holds at most `kMaxHeldBytes` that cannot be given
/// out yet.
class TcpStream {
 public:
  static constexpr std::size_t kMaxHeldBytes = 65536;

  /// `syn` is the sequence number of the segment that opened this side.
  explicit TcpStream(std::uint32_t syn) : next_(syn + 1) {}

  /// Takes a segment's payload. Comes back with the bytes that now follow those given out before,
  /// which are none while some in front of them are missing.
  [[nodiscard]] std::string Add(std::uint32_t sequence, std::string_view payload);

  /// The side has closed; `sequence` is that of the first byte which does not exist any more.
  void Close(std::uint32_t sequence);

  /// True when the side has closed and all its bytes were given out.
  [[nodiscard]] bool IsComplete() const;

  /// True when bytes in front of others, or of the end, are missing.
  [[nodiscard]] bool HasGap() const;

  /// True when more was held back than there is room for: the missing bytes will not come.
  [[nodiscard]] bool IsBroken() const { return broken_; }

 private:
  /// Counts from the stream's begin. Sequence numbers wrap around; the nearest place is meant.
  [[nodiscard]] std::int64_t Offset(std::uint32_t sequence) const;
  void Hold(std::int64_t offset, std::string_view payload);
  [[nodiscard]] std::string TakeHeld();

  std::uint32_t next_;      ///< sequence number of the byte at `given_`
  std::int64_t given_ = 0;  ///< how many bytes were given out
  std::optional<std::int64_t> end_;
  std::map<std::int64_t, std::string> held_;  ///< by offset, all behind `given_`
  std::size_t heldBytes_ = 0;
  bool broken_ = false;
};

}  // namespace tools
