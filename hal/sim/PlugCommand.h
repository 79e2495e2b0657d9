#pragma once

#include <string>

#include "hal/sim/LineOutput.h"
#include "hal/sim/PlugArguments.h"
#include "hal/sim/PluggedDevices.h"
#include "hal/sim/Quoting.h"

namespace halsim {

/// The command `plug`: parses its arguments, builds the chain, and passes it to the devices.
class PlugCommand {
 public:
  PlugCommand(hal::DeviceTree& tree, PluggedDevices& devices, LineOutput& output)
      : tree_(tree), plugged_(devices), output_(output) {}

  /// `words` are those after "plug". Throws CommandError and then changes nothing.
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
  void AddVolumes(PluggedChain& chain, const Disk& disk, Plugged& plugged, Arguments& arguments);
  VolumeOptions ReadVolume(const std::string& name, std::optional<int> lun, int partition,
                           Arguments& arguments) const;
  static void Override(PluggedChain& chain, const Arguments& arguments);

  const Plugged* FindSdHost(int number) const;
  std::string FreePort() const;
  std::string FreeNode(const std::vector<Disk>& alsoTaken) const;
  int FreePartition(const Plugged& plugged, std::optional<int> lun) const;

  void Announce(Plugged plugged, PluggedChain& chain, bool quiet);
  void List(const PluggedChain& chain);

  hal::DeviceTree& tree_;
  PluggedDevices& plugged_;
  LineOutput& output_;
};

}  // namespace halsim
