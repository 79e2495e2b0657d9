#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "hal/DeviceChains.h"
#include "hal/DeviceTree.h"
#include "hal/VolumeMounter.h"

namespace halsim {

/// Pauses between the steps of an arrival or a removal, in milliseconds.
struct Gaps {
  unsigned storageMs = 0;
  unsigned volumeMs = 0;
  unsigned removalMs = 0;
};

/// How a volume is mounted by somebody else before it is announced.
struct Premount {
  std::string place;
};

/// What one plug command brought in: the hardware facts that later commands need. Its devices are
/// in the tree, marked with its name, or in `coming`.
struct Unit {
  std::string name;
  std::string usbPort;  // empty: none
  int scsiHost = -1;    // -1: none
  int sdHost = -1;      // -1: is no SD host
  int cardHost = -1;    // -1: is no card
  Place cardPlace;      // where cards go, for an SD host
  std::vector<Disk> disks;

  std::list<Device> coming;                 // not announced yet, in their order
  std::map<std::string, Premount> mounted;  // of those coming, by object path
  unsigned timer = 0;
  bool leaving = false;
};

/// All that is plugged. Brings devices into the tree and takes them out, in the order and with the
/// pauses of the real service. Failures are thrown as CommandError.
class PluggedUnits {
 public:
  PluggedUnits(DeviceTree& tree, VolumeMounter& mounter) : tree_(tree), mounter_(mounter) {}
  ~PluggedUnits();
  PluggedUnits(const PluggedUnits&) = delete;
  PluggedUnits& operator=(const PluggedUnits&) = delete;

  Gaps& CurrentGaps() { return gaps_; }

  /// Throws when the name is taken or cannot be one.
  void CheckNewName(const std::string& name) const;
  Unit& Need(const std::string& name);
  const std::map<std::string, Unit>& Units() const { return units_; }

  /// Takes over the devices of the chain; those that are to be mounted stand in the unit.
  void Plug(Unit unit, DeviceChain& chain, bool atOnce);
  /// More devices for a unit that is there.
  void Extend(Unit& unit, DeviceChain& chain, const std::map<std::string, Premount>& mounted,
              bool atOnce);

  /// A whole unit.
  void Pull(const std::string& name, bool atOnce);
  /// One volume, or all volumes of a storage object.
  void PullVolumes(const Device& device);

  /// The device that a command means; throws when there is none. See docs/halsim.md for TARGET.
  const Device& Target(const std::string& text) const;

 private:
  void Advance(const std::string& name, bool atOnce);
  void AddNext(Unit& unit);
  void Remove(const std::string& name);
  unsigned PauseBefore(const Device& device) const;
  void StartTimer(Unit& unit, unsigned pauseMs, void (PluggedUnits::*step)(const std::string&));
  void Continue(const std::string& name) { Advance(name, false); }

  DeviceTree& tree_;
  VolumeMounter& mounter_;
  Gaps gaps_;
  std::map<std::string, Unit> units_;
};

}  // namespace halsim
