#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/shares/Announcement.h"

namespace tools {

/// How long a share lives after its last announcement.
inline constexpr std::chrono::seconds kShareLife{3};

/// One share of one unit. Two units may announce the same path: they are two shares.
struct Share {
  std::string sender;  ///< dotted address
  Announcement announcement;
};

enum class ShareChange {
  Appeared,
  Changed,    ///< announced again with another name, key, media type or read-only flag
  Withdrawn,  ///< by the unit that announced it
  Silent,     ///< not announced for `kShareLife`
  NoRoom,     ///< a new share was dropped; reported once until another one goes
};

struct ShareEvent {
  ShareChange change;
  Share share;
};

/// The shares that are being announced. Bounded: keeps at most `maxShares`, each no larger than a
/// datagram. The caller passes the time, which must not go backwards.
class ShareTable {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ShareTable(std::size_t maxShares) : maxShares_(maxShares) {}

  /// Processes an announcement or a withdrawal. Returns nullopt if it changes nothing.
  [[nodiscard]] std::optional<ShareEvent> Heard(const Share& share, Clock::time_point now);

  /// Drops and returns every share that has been silent for too long.
  [[nodiscard]] std::vector<ShareEvent> Expire(Clock::time_point now);

  /// All shares, ordered by sender and path.
  [[nodiscard]] std::vector<Share> Present() const;

 private:
  struct Entry {
    Share share;
    Clock::time_point lastHeard;
  };

  std::optional<ShareEvent> Add(const std::string& name, const Share& share, Clock::time_point now);

  const std::size_t maxShares_;
  std::map<std::string, Entry> entries_;  ///< by sender, ":" and path
  bool toldNoRoom_ = false;
};

}  // namespace tools
