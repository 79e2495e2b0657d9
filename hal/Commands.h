#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "hal/HalService.h"
#include "hal/PlugCommand.h"
#include "hal/PluggedUnits.h"
#include "hal/Tape.h"
#include "hal/Text.h"

namespace halsim {

/// The line language of docs/halsim.md.
class Commands {
 public:
  Commands(DeviceTree& tree, PluggedUnits& units, VolumeMounter& mounter, HalService& service,
           Tape& tape, std::function<void()> quit);

  /// Carries out one line and answers it. Whatever the line is, nothing is thrown. `complete` is
  /// false for a line that was too long to be read.
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

  /// The object path of the device that the next word means.
  std::string TargetPath(WordReader& words);

  DeviceTree& tree_;
  PluggedUnits& units_;
  VolumeMounter& mounter_;
  HalService& service_;
  Tape& tape_;
  PlugCommand plug_;
  const std::function<void()> quit_;
};

}  // namespace halsim
