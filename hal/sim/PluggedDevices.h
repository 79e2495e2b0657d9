#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "hal/face/DeviceTree.h"
#include "hal/sim/DeviceIndex.h"
#include "hal/sim/PluggedChain.h"
#include "hal/sim/SimMounter.h"

namespace halsim {

/// Pauses between the steps of an arrival or a removal, in milliseconds.
struct Gaps {
  unsigned storageMs = 0;
  unsigned volumeMs = 0;
  unsigned removalMs = 0;
};

/// A mount by somebody else, made before the volume is announced.
struct Premount {
  std::string place;
};

/// What one plug command added: the hardware facts that later commands need. Its devices are in the
/// tree or in `coming`, and in the index under its name.
struct Plugged {
  std::string name;
  std::string usbPort;   // empty: none
  int scsiHost = -1;     // -1: none
  int sdHost = -1;       // -1: is no SD host
  int cardHost = -1;     // -1: is no card
  hal::Place cardPlace;  // where cards go, for an SD host
  std::vector<Disk> disks;

  std::list<hal::Device> coming;            // not announced yet, in order
  std::map<std::string, Premount> mounted;  // of those coming, by object path
  unsigned timer = 0;
  bool leaving = false;
};

/// Everything that is plugged. Adds devices to the tree and removes them, in the order and with the
/// pauses of the reference service. Throws CommandError on failure.
class PluggedDevices {
 public:
  PluggedDevices(hal::DeviceTree& tree, DeviceIndex& index, SimMounter& mounter)
      : tree_(tree), index_(index), mounter_(mounter) {}
  ~PluggedDevices();
  PluggedDevices(const PluggedDevices&) = delete;
  PluggedDevices& operator=(const PluggedDevices&) = delete;

  Gaps& CurrentGaps() { return gaps_; }

  /// Throws if the name is in use or invalid.
  void CheckNewName(const std::string& name) const;
  Plugged& Need(const std::string& name);
  const std::map<std::string, Plugged>& All() const { return all_; }
  bool HasRole(const std::string& name, const std::string& role) const {
    return index_.HasRole(name, role);
  }

  /// Takes ownership of the chain's devices; those to be mounted are listed in `plugged`.
  void Plug(Plugged plugged, PluggedChain& chain, bool atOnce);
  /// Adds devices to what is already plugged.
  void Extend(Plugged& plugged, PluggedChain& chain, const std::map<std::string, Premount>& mounted,
              bool atOnce);

  /// Everything that one plug command added.
  void Pull(const std::string& name, bool atOnce);
  /// One volume, or all volumes of a storage object.
  void PullVolumes(const hal::Device& device);

  /// The device that a command names; throws if there is none. See docs/halsim.md for TARGET.
  const hal::Device& Target(const std::string& text) const;

 private:
  void Advance(const std::string& name, bool atOnce);
  void AddNext(Plugged& plugged);
  void Remove(const std::string& name);
  unsigned PauseBefore(const hal::Device& device) const;
  void StartTimer(Plugged& plugged, unsigned pauseMs,
                  void (PluggedDevices::*step)(const std::string&));
  void Continue(const std::string& name) { Advance(name, false); }
  bool Belongs(const hal::Device& device, const std::string& name) const {
    return index_.Of(device.udi).plugged == name;
  }

  hal::DeviceTree& tree_;
  DeviceIndex& index_;
  SimMounter& mounter_;
  Gaps gaps_;
  std::map<std::string, Plugged> all_;
};

}  // namespace halsim
