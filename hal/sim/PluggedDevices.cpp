#include "hal/sim/PluggedDevices.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "hal/sim/CommandError.h"
#include "hal/sim/Quoting.h"

namespace halsim {
namespace {

/// The place of a device in the order of a removal, which is neither children first nor parents
/// first.
int RemovalRank(hal::DeviceKind kind) {
  switch (kind) {
    case hal::DeviceKind::Volume:
      return 0;
    case hal::DeviceKind::Card:
    case hal::DeviceKind::ScsiDevice:
      return 1;
    case hal::DeviceKind::UsbInterface:
      return 2;
    case hal::DeviceKind::UsbDevice:
      return 3;
    case hal::DeviceKind::ScsiHost:
    case hal::DeviceKind::SdHost:
      return 4;
    case hal::DeviceKind::Controller:
    case hal::DeviceKind::Other:
      return 5;
    case hal::DeviceKind::Storage:
      return 6;
  }
  return 6;
}

struct Timer {
  PluggedDevices* plugged;
  std::string name;
  void (PluggedDevices::*step)(const std::string&);
};

bool IsNameCharacter(char c) {
  return g_ascii_isalnum(c) || c == '_' || c == '-';
}

}  // namespace

PluggedDevices::~PluggedDevices() {
  for (const auto& [name, plugged] : all_) {
    if (plugged.timer != 0) g_source_remove(plugged.timer);
  }
}

void PluggedDevices::CheckNewName(const std::string& name) const {
  if (name.empty() || !std::all_of(name.begin(), name.end(), IsNameCharacter)) {
    throw CommandError(Quote(name) + " is not a valid name: use letters, digits, _ and -");
  }
  if (all_.contains(name)) throw CommandError("there is a " + Quote(name) + " already");
}

Plugged& PluggedDevices::Need(const std::string& name) {
  const auto found = all_.find(name);
  if (found == all_.end()) throw CommandError("nothing plugged is called " + Quote(name));
  if (found->second.leaving) throw CommandError(Quote(name) + " is being pulled");
  return found->second;
}

void PluggedDevices::Plug(Plugged plugged, PluggedChain& chain, bool atOnce) {
  const std::string name = plugged.name;
  plugged.coming = chain.TakeInto(index_);
  all_.emplace(name, std::move(plugged));
  Advance(name, atOnce);
}

void PluggedDevices::Extend(Plugged& plugged, PluggedChain& chain,
                            const std::map<std::string, Premount>& mounted, bool atOnce) {
  if (atOnce && plugged.timer != 0) throw CommandError(Quote(plugged.name) + " is still arriving");
  plugged.mounted.insert(mounted.begin(), mounted.end());
  plugged.coming.splice(plugged.coming.end(), chain.TakeInto(index_));
  if (plugged.timer == 0) Advance(plugged.name, atOnce);
}

/// Adds what is due; returns with a timer running when a pause comes first.
void PluggedDevices::Advance(const std::string& name, bool atOnce) {
  Plugged& plugged = all_.at(name);
  // A pause that has just ended is not taken again.
  bool pauseTaken = std::exchange(plugged.timer, 0) != 0;
  while (!plugged.coming.empty()) {
    const unsigned pauseMs = atOnce || pauseTaken ? 0 : PauseBefore(plugged.coming.front());
    if (pauseMs > 0) {
      StartTimer(plugged, pauseMs, &PluggedDevices::Continue);
      return;
    }
    AddNext(plugged);
    pauseTaken = false;
  }
}

void PluggedDevices::AddNext(Plugged& plugged) {
  const std::string udi = plugged.coming.front().udi;
  {
    const hal::DeviceTree::Silence silence(tree_);
    tree_.Add(std::move(plugged.coming.front()));
    plugged.coming.pop_front();
    const auto premount = plugged.mounted.extract(udi);
    if (!premount.empty()) {
      if (const auto refused = mounter_.MountOutside(udi, premount.mapped().place, false)) {
        std::fprintf(stderr, "voldrake-halsim: %s stays unmounted: %s\n", udi.c_str(),
                     refused->text.c_str());
      }
    }
  }
  tree_.AnnounceAdded(udi);
}

unsigned PluggedDevices::PauseBefore(const hal::Device& device) const {
  if (device.kind == hal::DeviceKind::Storage) return gaps_.storageMs;
  if (device.kind == hal::DeviceKind::Volume) return gaps_.volumeMs;
  return 0;
}

void PluggedDevices::StartTimer(Plugged& plugged, unsigned pauseMs,
                                void (PluggedDevices::*step)(const std::string&)) {
  plugged.timer = g_timeout_add_full(
      G_PRIORITY_DEFAULT, pauseMs,
      [](gpointer data) -> gboolean {
        const Timer timer = *static_cast<Timer*>(data);
        (timer.plugged->*timer.step)(timer.name);
        return G_SOURCE_REMOVE;
      },
      new Timer{this, plugged.name, step}, [](gpointer data) { delete static_cast<Timer*>(data); });
}

void PluggedDevices::Pull(const std::string& name, bool atOnce) {
  Plugged& plugged = Need(name);
  for (const auto& [other, candidate] : all_) {
    if (plugged.sdHost >= 0 && candidate.cardHost == plugged.sdHost) {
      throw CommandError("there is a card in it: " + Quote(other));
    }
  }
  if (plugged.timer != 0) g_source_remove(std::exchange(plugged.timer, 0));
  for (const hal::Device& device : plugged.coming) {
    tree_.Release(device.udi);
    index_.Remove(device.udi);
  }
  plugged.coming.clear();
  bool wasMounted = false;
  std::vector<std::string> volumes;
  for (const hal::Device& device : tree_.Devices()) {
    if (Belongs(device, name) && device.kind == hal::DeviceKind::Volume)
      volumes.push_back(device.udi);
  }
  for (const std::string& udi : volumes) wasMounted |= mounter_.UnmountLazily(udi);
  if (wasMounted && gaps_.removalMs > 0 && !atOnce) {
    plugged.leaving = true;
    StartTimer(plugged, gaps_.removalMs, &PluggedDevices::Remove);
  } else {
    Remove(name);
  }
}

void PluggedDevices::Remove(const std::string& name) {
  std::vector<std::pair<int, std::string>> order;
  for (const hal::Device& device : tree_.Devices()) {
    if (Belongs(device, name)) order.emplace_back(RemovalRank(device.kind), device.udi);
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  all_.erase(std::string(name));
  for (const auto& [rank, udi] : order) {
    tree_.Remove(udi);
    index_.Remove(udi);
  }
}

void PluggedDevices::PullVolumes(const hal::Device& device) {
  if (device.kind != hal::DeviceKind::Volume && device.kind != hal::DeviceKind::Storage) {
    throw CommandError("only a NAME, a volume or the volumes of a storage object can be pulled");
  }
  std::vector<std::string> volumes;
  for (const hal::Device& candidate : tree_.Devices()) {
    const bool onDisk = device.kind == hal::DeviceKind::Storage &&
                        candidate.kind == hal::DeviceKind::Volume &&
                        candidate.Text("block.storage_device") == device.udi;
    if (onDisk || candidate.udi == device.udi) volumes.push_back(candidate.udi);
  }
  if (device.kind == hal::DeviceKind::Storage) std::erase(volumes, device.udi);
  if (volumes.empty()) throw CommandError("there is no volume on it");
  for (const std::string& udi : volumes) mounter_.UnmountLazily(udi);
  for (const std::string& udi : volumes) {
    tree_.Remove(udi);
    index_.Remove(udi);
  }
}

const hal::Device& PluggedDevices::Target(const std::string& text) const {
  if (text.starts_with('/')) {
    const hal::Device* device = tree_.Find(text);
    if (device == nullptr) throw CommandError("there is no device " + Quote(text));
    return *device;
  }
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  const std::string role = colon == std::string::npos ? "volume" : text.substr(colon + 1);
  if (!all_.contains(name)) throw CommandError("nothing plugged is called " + Quote(name));
  for (const hal::Device& device : tree_.Devices()) {
    if (Belongs(device, name) && RoleMeans(role, index_.Of(device.udi).role)) return device;
  }
  throw CommandError(Quote(name) + " has no " + Quote(role));
}

}  // namespace halsim
