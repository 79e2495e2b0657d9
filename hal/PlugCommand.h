#pragma once

#include <string>

#include "hal/DeviceChains.h"
#include "hal/PlugArguments.h"
#include "hal/PluggedUnits.h"
#include "hal/Tape.h"
#include "hal/Text.h"

namespace halsim {

/// The command `plug`: reads its arguments, builds the chain, and hands it to the units.
class PlugCommand {
 public:
  PlugCommand(DeviceTree& tree, PluggedUnits& units, Tape& tape)
      : tree_(tree), units_(units), tape_(tape) {}

  /// `words` stands behind "plug". Throws CommandError, with nothing changed.
  void Run(WordReader& words, bool quiet);

 private:
  using Arguments = PlugArguments;

  void Usb(const std::string& name, Arguments& arguments, bool quiet);
  void Reader(const std::string& name, Arguments& arguments, bool quiet);
  void Scsi(const std::string& name, Arguments& arguments, bool quiet);
  void Sd(const std::string& name, Arguments& arguments, bool quiet);
  void Host(const std::string& name, Arguments& arguments, bool quiet);
  void Volume(const std::string& name, Arguments& arguments, bool quiet);

  UsbOptions ReadUsb(const std::string& name, Arguments& arguments, int vendor, int product);
  int ReadScsiHost(Arguments& arguments) const;
  DiskOptions ReadScsiDisk(const std::string& name, Arguments& arguments, const std::string& bus);
  void AppendVolumes(DeviceChain& chain, const Disk& disk, Unit& unit, Arguments& arguments);
  VolumeOptions ReadVolume(const std::string& name, std::optional<int> lun, int partition,
                           Arguments& arguments) const;
  static void Override(DeviceChain& chain, const Arguments& arguments);

  const Unit* FindSdHost(int number) const;
  std::string FreePort() const;
  std::string FreeNode(const std::vector<Disk>& alsoTaken) const;
  int FreePartition(const Unit& unit, std::optional<int> lun) const;
  bool HasRole(const Unit& unit, const std::string& role) const;

  void Announce(Unit unit, DeviceChain& chain, bool quiet);
  void List(const DeviceChain& chain);

  DeviceTree& tree_;
  PluggedUnits& units_;
  Tape& tape_;
};

}  // namespace halsim
