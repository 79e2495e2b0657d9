#include "hal/PluggedUnits.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "hal/CommandError.h"
#include "hal/Text.h"

namespace halsim {
namespace {

/// The place of a device in the order of a removal, which is neither children first nor parents
/// first.
int RemovalRank(DeviceKind kind) {
  switch (kind) {
    case DeviceKind::Volume:
      return 0;
    case DeviceKind::Card:
    case DeviceKind::ScsiDevice:
      return 1;
    case DeviceKind::UsbInterface:
      return 2;
    case DeviceKind::UsbDevice:
      return 3;
    case DeviceKind::ScsiHost:
    case DeviceKind::SdHost:
      return 4;
    case DeviceKind::Controller:
    case DeviceKind::Other:
      return 5;
    case DeviceKind::Storage:
      return 6;
  }
  return 6;
}

struct Timer {
  PluggedUnits* units;
  std::string name;
  void (PluggedUnits::*step)(const std::string&);
};

bool IsNameCharacter(char c) {
  return g_ascii_isalnum(c) || c == '_' || c == '-';
}

}  // namespace

PluggedUnits::~PluggedUnits() {
  for (const auto& [name, unit] : units_) {
    if (unit.timer != 0) g_source_remove(unit.timer);
  }
}

void PluggedUnits::CheckNewName(const std::string& name) const {
  if (name.empty() || !std::all_of(name.begin(), name.end(), IsNameCharacter)) {
    throw CommandError(Quote(name) + " is no name: letters, digits, _ and -");
  }
  if (units_.contains(name)) throw CommandError("there is a " + Quote(name) + " already");
}

Unit& PluggedUnits::Need(const std::string& name) {
  const auto found = units_.find(name);
  if (found == units_.end()) throw CommandError("nothing plugged is called " + Quote(name));
  if (found->second.leaving) throw CommandError(Quote(name) + " is being pulled");
  return found->second;
}

void PluggedUnits::Plug(Unit unit, DeviceChain& chain, bool atOnce) {
  const std::string name = unit.name;
  unit.coming = chain.Take();
  units_.emplace(name, std::move(unit));
  Advance(name, atOnce);
}

void PluggedUnits::Extend(Unit& unit, DeviceChain& chain,
                          const std::map<std::string, Premount>& mounted, bool atOnce) {
  if (atOnce && unit.timer != 0) throw CommandError(Quote(unit.name) + " is still arriving");
  unit.mounted.insert(mounted.begin(), mounted.end());
  unit.coming.splice(unit.coming.end(), chain.Take());
  if (unit.timer == 0) Advance(unit.name, atOnce);
}

/// Adds what is due; returns with a timer running when a pause comes first.
void PluggedUnits::Advance(const std::string& name, bool atOnce) {
  Unit& unit = units_.at(name);
  // A pause that has just ended is not taken again.
  bool pauseTaken = std::exchange(unit.timer, 0) != 0;
  while (!unit.coming.empty()) {
    const unsigned pauseMs = atOnce || pauseTaken ? 0 : PauseBefore(unit.coming.front());
    if (pauseMs > 0) {
      StartTimer(unit, pauseMs, &PluggedUnits::Continue);
      return;
    }
    AddNext(unit);
    pauseTaken = false;
  }
}

void PluggedUnits::AddNext(Unit& unit) {
  const std::string udi = unit.coming.front().udi;
  {
    const DeviceTree::Silence silence(tree_);
    tree_.Add(std::move(unit.coming.front()));
    unit.coming.pop_front();
    const auto premount = unit.mounted.extract(udi);
    if (!premount.empty()) {
      if (const auto refused = mounter_.MountOutside(udi, premount.mapped().place, false)) {
        std::fprintf(stderr, "voldrake-halsim: %s stays unmounted: %s\n", udi.c_str(),
                     refused->text.c_str());
      }
    }
  }
  tree_.AnnounceAdded(udi);
}

unsigned PluggedUnits::PauseBefore(const Device& device) const {
  if (device.kind == DeviceKind::Storage) return gaps_.storageMs;
  if (device.kind == DeviceKind::Volume) return gaps_.volumeMs;
  return 0;
}

void PluggedUnits::StartTimer(Unit& unit, unsigned pauseMs,
                              void (PluggedUnits::*step)(const std::string&)) {
  unit.timer = g_timeout_add_full(
      G_PRIORITY_DEFAULT, pauseMs,
      [](gpointer data) -> gboolean {
        const Timer timer = *static_cast<Timer*>(data);
        (timer.units->*timer.step)(timer.name);
        return G_SOURCE_REMOVE;
      },
      new Timer{this, unit.name, step}, [](gpointer data) { delete static_cast<Timer*>(data); });
}

void PluggedUnits::Pull(const std::string& name, bool atOnce) {
  Unit& unit = Need(name);
  for (const auto& [other, candidate] : units_) {
    if (unit.sdHost >= 0 && candidate.cardHost == unit.sdHost) {
      throw CommandError("there is a card in it: " + Quote(other));
    }
  }
  if (unit.timer != 0) g_source_remove(std::exchange(unit.timer, 0));
  for (const Device& device : unit.coming) tree_.Release(device.udi);
  unit.coming.clear();
  bool wasMounted = false;
  std::vector<std::string> volumes;
  for (const Device& device : tree_.Devices()) {
    if (device.unit == name && device.kind == DeviceKind::Volume) volumes.push_back(device.udi);
  }
  for (const std::string& udi : volumes) wasMounted |= mounter_.UnmountLazily(udi);
  if (wasMounted && gaps_.removalMs > 0 && !atOnce) {
    unit.leaving = true;
    StartTimer(unit, gaps_.removalMs, &PluggedUnits::Remove);
  } else {
    Remove(name);
  }
}

void PluggedUnits::Remove(const std::string& name) {
  std::vector<std::pair<int, std::string>> order;
  for (const Device& device : tree_.Devices()) {
    if (device.unit == name) order.emplace_back(RemovalRank(device.kind), device.udi);
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  units_.erase(std::string(name));
  for (const auto& [rank, udi] : order) tree_.Remove(udi);
}

void PluggedUnits::PullVolumes(const Device& device) {
  if (device.kind != DeviceKind::Volume && device.kind != DeviceKind::Storage) {
    throw CommandError("only a whole unit, a volume or what is on a storage object can be pulled");
  }
  std::vector<std::string> volumes;
  for (const Device& candidate : tree_.Devices()) {
    const bool onDisk = device.kind == DeviceKind::Storage &&
                        candidate.kind == DeviceKind::Volume &&
                        candidate.Text("block.storage_device") == device.udi;
    if (onDisk || candidate.udi == device.udi) volumes.push_back(candidate.udi);
  }
  if (device.kind == DeviceKind::Storage) std::erase(volumes, device.udi);
  if (volumes.empty()) throw CommandError("there is no volume on it");
  for (const std::string& udi : volumes) mounter_.UnmountLazily(udi);
  for (const std::string& udi : volumes) tree_.Remove(udi);
}

const Device& PluggedUnits::Target(const std::string& text) const {
  if (text.starts_with('/')) {
    const Device* device = tree_.Find(text);
    if (device == nullptr) throw CommandError("there is no device " + Quote(text));
    return *device;
  }
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  const std::string role = colon == std::string::npos ? "volume" : text.substr(colon + 1);
  if (!units_.contains(name)) throw CommandError("nothing plugged is called " + Quote(name));
  for (const Device& device : tree_.Devices()) {
    if (device.unit == name && RoleMeans(role, device.role)) return device;
  }
  throw CommandError(Quote(name) + " has no " + Quote(role));
}

}  // namespace halsim
