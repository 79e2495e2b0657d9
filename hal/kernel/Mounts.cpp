#include "hal/kernel/Mounts.h"

#include <algorithm>
#include <iterator>

namespace halkernel {

MountIndex::MountIndex(const Mounts& mounts)
    : entries_(mounts.entries), swaps_(mounts.swaps.begin(), mounts.swaps.end()) {
  for (std::size_t place = 0; place < entries_.size(); ++place) {
    const MountEntry& entry = entries_[place];
    if (entry.number.major != 0) byNumber_[entry.number].push_back(place);
    if (entry.namedBySource) bySource_[entry.source].push_back(place);
  }
}

const MountEntry* MountIndex::First(DeviceNumber number, const std::string& node) const {
  const std::vector<std::size_t> places = Find(number, node);
  return places.empty() ? nullptr : &entries_[places.front()];
}

std::vector<MountEntry> MountIndex::All(DeviceNumber number, const std::string& node) const {
  std::vector<MountEntry> found;
  for (const std::size_t place : Find(number, node)) found.push_back(entries_[place]);
  return found;
}

std::vector<std::size_t> MountIndex::Find(DeviceNumber number, const std::string& node) const {
  static const std::vector<std::size_t> kNone;
  const auto numbered = byNumber_.find(number);
  const auto sourced = bySource_.find(node);
  const auto& first = numbered == byNumber_.end() ? kNone : numbered->second;
  const auto& second = sourced == bySource_.end() ? kNone : sourced->second;
  std::vector<std::size_t> places;
  std::set_union(first.begin(), first.end(), second.begin(), second.end(),
                 std::back_inserter(places));
  return places;
}

}  // namespace halkernel
