#include "tools/shares/ShareTable.h"

#include <utility>

namespace tools {

std::optional<ShareEvent> ShareTable::Heard(const Share& share, Clock::time_point now) {
  const std::string name = share.sender + ":" + share.announcement.path;
  const auto found = entries_.find(name);
  if (share.announcement.type == kTypeWithdraw) {
    if (found == entries_.end()) return std::nullopt;
    ShareEvent event{ShareChange::Withdrawn, std::move(found->second.share)};
    entries_.erase(found);
    toldNoRoom_ = false;
    return event;
  }
  if (found == entries_.end()) return Add(name, share, now);
  found->second.lastHeard = now;
  if (found->second.share.announcement == share.announcement) return std::nullopt;
  found->second.share = share;
  return ShareEvent{ShareChange::Changed, share};
}

std::optional<ShareEvent> ShareTable::Add(const std::string& name, const Share& share,
                                          Clock::time_point now) {
  if (entries_.size() >= maxShares_) {
    if (std::exchange(toldNoRoom_, true)) return std::nullopt;
    return ShareEvent{ShareChange::NoRoom, share};
  }
  entries_.emplace(name, Entry{share, now});
  return ShareEvent{ShareChange::Appeared, share};
}

std::vector<ShareEvent> ShareTable::Expire(Clock::time_point now) {
  std::vector<ShareEvent> events;
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    if (now - entry->second.lastHeard < kShareLife) {
      ++entry;
      continue;
    }
    events.push_back({ShareChange::Silent, std::move(entry->second.share)});
    entry = entries_.erase(entry);
    toldNoRoom_ = false;
  }
  return events;
}

std::vector<Share> ShareTable::Present() const {
  std::vector<Share> shares;
  shares.reserve(entries_.size());
  for (const auto& [name, entry] : entries_) shares.push_back(entry.share);
  return shares;
}

}  // namespace tools
