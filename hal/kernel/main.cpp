// voldrake-hald: the hardware service over the devices that the kernel and udev show.

#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "glib/Handles.h"
#include "hal/face/DeviceTree.h"
#include "hal/face/HalService.h"
#include "hal/kernel/BlockDevices.h"
#include "hal/kernel/CallGate.h"
#include "hal/kernel/DeviceList.h"
#include "hal/kernel/KernelMounter.h"
#include "hal/kernel/Log.h"
#include "hal/kernel/MountTable.h"
#include "hal/kernel/Reconciler.h"
#include "hal/kernel/StateFile.h"
#include "hal/kernel/UdevWatch.h"
#include "program/MainLoop.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"

namespace {

using namespace halkernel;

constexpr const char* kSummary =
    "Serves org.freedesktop.Hal with the USB sticks, memory cards and card readers of this "
    "machine.\n"
    "It logs to syslog.";

constexpr const char* kStateDirectory = "/run/voldrake-hald";
constexpr const char* kStateFile = "/run/voldrake-hald/state";

struct Options {
  std::string address;
  bool list = false;
  bool json = false;
  bool debug = false;
};

/// False, after a complaint, when the command line is wrong.
bool ReadServiceOptions(int argc, char* argv[], Options& options) {
  char* address = nullptr;
  gboolean list = FALSE;
  gboolean json = FALSE;
  gboolean debug = FALSE;
  const GOptionEntry entries[] = {
      {"address", 0, 0, G_OPTION_ARG_STRING, &address,
       "D-Bus address to connect to (default: the system bus)", "BUS"},
      {"list", 0, 0, G_OPTION_ARG_NONE, &list,
       "Show the devices that would be served, and exit; needs no bus", nullptr},
      {"json", 0, 0, G_OPTION_ARG_NONE, &json, "With --list: one JSON object per line", nullptr},
      {"debug", 0, 0, G_OPTION_ARG_NONE, &debug,
       "Also log events and calls, and write the log to standard error too", nullptr},
      GOptionEntry{}};
  const bool isRead = program::ReadOptions(argc, argv, kSummary, entries);
  const glib::CharPointer owned(address);
  if (!isRead) return false;
  if (address != nullptr) options.address = address;
  options.list = list != FALSE;
  options.json = json != FALSE;
  options.debug = debug != FALSE;
  const char* complaint = nullptr;
  if (options.json && !options.list) complaint = "--json goes with --list";
  if (address != nullptr && options.address.empty())
    complaint = "the value of --address is missing";
  if (complaint != nullptr) program::Complain(complaint);
  return complaint == nullptr;
}

/// A fault that ends the program, for those who read the log and for those who started it.
int Fail(const Options& options, const std::string& text) {
  Log(LOG_ERR, text);
  // With --debug the log is on standard error already.
  if (!options.debug) program::Complain(text);
  return EXIT_FAILURE;
}

/// The devices of this machine in a tree, and what is done to them.
class Machine {
 public:
  /// `onChange` runs when `ToKeep` has changed.
  explicit Machine(const std::function<void()>& onChange)
      : mounts_([this] { OnMountsChanged(); }),
        mounter_(
            tree_, mounts_, [this] { devices_.RefreshMounts(); }, onChange),
        reconciler_(tree_, onChange),
        devices_(tree_, reconciler_, mounts_, mounter_, [this] { return watch_.Enumerate(); }),
        watch_(devices_) {}

  /// Looks at everything, silently. Gives the reason of a failure.
  std::optional<std::string> Start(const std::optional<State>& before) {
    if (auto failure = mounts_.Start()) return failure;
    if (auto failure = watch_.Start()) return failure;
    if (before) mounter_.Restore(before->directories);
    devices_.Prepare(before);
    return std::nullopt;
  }

  /// Once clients can hear it: what has changed since the service ran last.
  void Announce() { devices_.Announce(); }

  [[nodiscard]] State ToKeep() const { return {reconciler_.Kept(), mounter_.Directories()}; }

  hal::DeviceTree& Tree() { return tree_; }
  KernelMounter& Mounter() { return mounter_; }

 private:
  void OnMountsChanged() {
    devices_.MountsChanged();
    mounter_.RemoveUnused();
  }

  hal::DeviceTree tree_;
  MountTable mounts_;
  KernelMounter mounter_;
  Reconciler reconciler_;
  BlockDevices devices_;
  UdevWatch watch_;
};

int List(const Options& options) {
  // Nobody is to find arrivals in the log that were none.
  setlogmask(LOG_MASK(LOG_EMERG));
  Machine machine([] {});
  if (const auto failure = machine.Start(std::nullopt)) return Fail(options, *failure);
  const std::string text = options.json ? ListJson(machine.Tree()) : ListText(machine.Tree());
  return program::Print(text) ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Serve(const Options& options) {
  program::MainLoop loop;
  StateFile file(kStateFile);
  std::unique_ptr<Machine> machine;
  std::unique_ptr<hal::HalService> service;
  // A service that does not own the name must not touch what the owner keeps.
  const auto keep = [&] {
    if (service == nullptr || !service->OwnsName()) return;
    machine->Mounter().RemoveUnused();
    // A removal that only waits to be sent must not be forgotten, nor one that cannot be sent any
    // more: the next start reports it.
    if (service->Flush()) file.Write(machine->ToKeep());
  };
  machine = std::make_unique<Machine>(keep);
  CallGate gate;
  bool lost = false;
  service = std::make_unique<hal::HalService>(machine->Tree(), machine->Mounter(), &gate,
                                              options.address, [&] {
                                                lost = true;
                                                loop.Quit();
                                              });
  gate.SetService(service.get());

  if (const auto failure = service->Connect()) return Fail(options, *failure);
  mkdir(kStateDirectory, 0755);
  if (const auto failure = machine->Start(file.Read())) return Fail(options, *failure);
  if (const auto failure = service->Return()) return Fail(options, *failure);
  machine->Announce();
  keep();
  Log(LOG_INFO, "serving " + std::to_string(machine->Tree().Devices().size() - 1) + " devices");
  loop.Run();
  return lost ? Fail(options, "the bus has closed the connection") : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char* argv[]) {
  g_set_prgname("voldrake-hald");
  Options options;
  if (!ReadServiceOptions(argc, argv, options)) return EXIT_FAILURE;
  std::signal(SIGPIPE, SIG_IGN);
  OpenLog(options.debug);
  return options.list ? List(options) : Serve(options);
}
