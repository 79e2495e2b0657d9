#include "tools/monitor/TcpStream.h"

#include <utility>

namespace tools {

namespace {

/// What a held piece counts besides its bytes, so that many small ones are bounded as well.
constexpr std::size_t kPieceBytes = 64;

}  // namespace

std::string TcpStream::Add(std::uint32_t sequence, std::string_view payload) {
  const std::int64_t offset = Offset(sequence);
  const std::int64_t known = given_ - offset;
  if (payload.empty() || known >= static_cast<std::int64_t>(payload.size())) return {};
  if (known < 0) {
    Hold(offset, payload);
    return {};
  }
  payload.remove_prefix(static_cast<std::size_t>(known));
  std::string bytes(payload);
  given_ += static_cast<std::int64_t>(payload.size());
  next_ += static_cast<std::uint32_t>(payload.size());
  return bytes + TakeHeld();
}

void TcpStream::Close(std::uint32_t sequence) {
  end_ = Offset(sequence);
}

bool TcpStream::IsComplete() const {
  return end_ && *end_ <= given_;
}

bool TcpStream::HasGap() const {
  return !held_.empty() || (end_ && *end_ > given_);
}

std::int64_t TcpStream::Offset(std::uint32_t sequence) const {
  return given_ + static_cast<std::int32_t>(sequence - next_);
}

void TcpStream::Hold(std::int64_t offset, std::string_view payload) {
  const auto found = held_.find(offset);
  if (found != held_.end() && found->second.size() >= payload.size()) return;
  const std::size_t replaced = found != held_.end() ? found->second.size() + kPieceBytes : 0;
  const std::size_t held = heldBytes_ - replaced + payload.size() + kPieceBytes;
  if (held > kMaxHeldBytes) {
    broken_ = true;
    return;
  }
  heldBytes_ = held;
  held_[offset] = payload;
}

std::string TcpStream::TakeHeld() {
  std::string bytes;
  while (!held_.empty() && held_.begin()->first <= given_) {
    const auto piece = held_.extract(held_.begin());
    heldBytes_ -= piece.mapped().size() + kPieceBytes;
    const auto known = static_cast<std::size_t>(given_ - piece.key());
    if (known >= piece.mapped().size()) continue;
    const std::size_t fresh = piece.mapped().size() - known;
    bytes.append(piece.mapped(), known);
    given_ += static_cast<std::int64_t>(fresh);
    next_ += static_cast<std::uint32_t>(fresh);
  }
  return bytes;
}

}  // namespace tools
