#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "storage/HalVolumeInfo.h"

// All that surrounds tVoldrake, in a program that links VoldrakeWorld.cpp: it stands in for the
// hardware service's client, the message client, the publisher, the browser and what deals with
// "/media". Nothing leaves the program. What tVoldrake does to the world goes to the log, beside
// its own lines, as a line of level kLogInfo that begins with "> ".

struct tVoldrakeWorld {
  /// What the hardware service says of a volume, query by query; the last answer stays. No value: a
  /// query fails. A volume that is not here cannot be described either.
  std::map<std::string, std::deque<std::optional<HalVolumeInfo>>> volumes{};
  /// The flags that can be read, by device and key.
  std::map<std::pair<std::string, std::string>, bool> flags{};
  std::vector<std::string> found{};  ///< the result of each search for volumes
  bool refusesMounts = false;
  std::set<std::string> leftovers{};  ///< what stands in "/media" and is not mounted
  bool leftoversStay = false;         ///< they cannot be deleted
  bool refusesLinks = false;
};

/// The world of this test.
tVoldrakeWorld& World();
