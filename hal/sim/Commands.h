#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "hal/face/HalService.h"
#include "hal/sim/DeviceIndex.h"
#include "hal/sim/LineOutput.h"
#include "hal/sim/PlugCommand.h"
#include "hal/sim/PluggedDevices.h"
#include "hal/sim/Quoting.h"
#include "hal/sim/SimCalls.h"
#include "hal/sim/SimMounter.h"

namespace halsim {

/// The line language of docs/halsim.md.
class Commands {
 public:
  Commands(hal::DeviceTree& tree, const DeviceIndex& index, PluggedDevices& devices,
           SimMounter& mounter, hal::HalService& service, SimCalls& calls, LineOutput& output,
           std::function<void()> quit);

  /// Executes one line, which may be anything, and answers it. Never throws. `complete` is false
  /// for a line that was too long to be read.
  void Run(std::string_view line, bool complete);

 private:
  struct Entry;
  static const Entry kEntries[];

  void Dispatch(WordReader& words, bool quiet);

  void Plug(WordReader& words, bool quiet);
  void Pull(WordReader& words, bool quiet);
  void Set(WordReader& words, bool quiet);
  void Mount(WordReader& words, bool quiet);
  void Unmount(WordReader& words, bool quiet);
  void Remount(WordReader& words, bool quiet);
  void Quiet(WordReader& words, bool quiet);
  void Gap(WordReader& words, bool quiet);
  void Emit(WordReader& words, bool quiet);
  void DelayCall(WordReader& words, bool quiet);
  void FailCall(WordReader& words, bool quiet);
  void AnswerCall(WordReader& words, bool quiet);
  void IgnoreCall(WordReader& words, bool quiet);
  void ForgetFaults(WordReader& words, bool quiet);
  void Drop(WordReader& words, bool quiet);
  void Return(WordReader& words, bool quiet);
  void List(WordReader& words, bool quiet);
  void Show(WordReader& words, bool quiet);
  void Help(WordReader& words, bool quiet);
  void Quit(WordReader& words, bool quiet);

  /// The object path of the device that the next word names.
  std::string TargetPath(WordReader& words);

  hal::DeviceTree& tree_;
  const DeviceIndex& index_;
  PluggedDevices& plugged_;
  SimMounter& mounter_;
  hal::HalService& service_;
  SimCalls& calls_;
  LineOutput& output_;
  PlugCommand plug_;
  const std::function<void()> quit_;
};

}  // namespace halsim
