// voldrake-monitor: stands where the display application would, or beside it, and shows every
// message that it gets.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "program/MainLoop.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"
#include "tools/monitor/MessageFormat.h"
#include "tools/monitor/MessageServer.h"
#include "tools/monitor/WatchBeside.h"

namespace {

constexpr const char* kSummary =
    "Listens on 127.0.0.1 in place of the display application and shows every message, one line\n"
    "each. Malformed data is shown with the reason and its bytes.\n"
    "With --beside it leaves the port to the application and shows the traffic there.";

struct Options {
  int port = 8080;
  gboolean beside = FALSE;
  gboolean json = FALSE;
  gboolean raw = FALSE;
  int count = 0;
};

bool ReadMonitorOptions(int argc, char* argv[], Options& options) {
  const GOptionEntry entries[] = {
      {"port", 0, 0, G_OPTION_ARG_INT, &options.port,
       "Port to listen on (default 8080; 0 selects a free one)", "PORT"},
      {"beside", 0, 0, G_OPTION_ARG_NONE, &options.beside, "Watch beside the application, as root",
       nullptr},
      {"json", 0, 0, G_OPTION_ARG_NONE, &options.json,
       "One JSON object per line; each character of a text is one byte of it", nullptr},
      {"raw", 0, 0, G_OPTION_ARG_NONE, &options.raw, "Show the bytes of every frame", nullptr},
      {"count", 0, 0, G_OPTION_ARG_INT, &options.count,
       "Exit after N messages, including malformed ones", "N"},
      GOptionEntry{}};
  if (!program::ReadOptions(argc, argv, kSummary, entries)) return false;
  const char* complaint = nullptr;
  if (options.port < 0 || options.port > UINT16_MAX) complaint = "the port must be 0 to 65535";
  if (options.beside && options.port == 0) complaint = "--beside needs the application's port";
  if (options.count < 0) complaint = "the count cannot be negative";
  if (options.json && options.raw) complaint = "--json and --raw exclude each other";
  if (complaint != nullptr) program::Complain(complaint);
  return complaint == nullptr;
}

/// Shows frames on standard output and ends the main loop when it is done.
class Monitor {
 public:
  Monitor(const Options& options, program::MainLoop& loop) : options_(options), loop_(loop) {}

  void Show(const tools::Received& received) {
    if (done_) return;
    if (!received.bytes.empty()) ++shown_;
    Print(Format(received));
  }

  void Show(const tools::Incident& incident) {
    if (!done_) Print(options_.json ? tools::JsonText(incident) : tools::TableText(incident));
  }

  [[nodiscard]] bool Failed() const { return failed_; }

 private:
  void Print(const std::string& text) {
    failed_ = !program::Print(text);
    done_ = failed_ || (options_.count > 0 && shown_ >= options_.count);
    if (done_) loop_.Quit();
  }

  [[nodiscard]] std::string Format(const tools::Received& received) const {
    if (options_.json) return tools::JsonText(received);
    return options_.raw ? tools::RawText(received) : tools::TableText(received);
  }

  const Options options_;
  program::MainLoop& loop_;
  int shown_ = 0;
  bool done_ = false;
  bool failed_ = false;
};

/// Listens in the application's place until the loop ends. Returns false if the port is not
/// available.
bool Listen(std::uint16_t port, Monitor& monitor, program::MainLoop& loop) {
  tools::MessageServer server([&](tools::Frame frame) {
    monitor.Show(tools::Examine(std::move(frame), std::chrono::system_clock::now()));
  });
  if (std::string error; !server.Listen(port, error)) {
    program::Complain(error);
    return false;
  }
  program::Complain("listening on 127.0.0.1:" + std::to_string(server.Port()));
  loop.Run();
  return true;
}

}  // namespace

int main(int argc, char* argv[]) {
  g_set_prgname("voldrake-monitor");
  Options options;
  if (!ReadMonitorOptions(argc, argv, options)) return EXIT_FAILURE;

  program::MainLoop loop;
  Monitor monitor(options, loop);
  const auto port = static_cast<std::uint16_t>(options.port);
  bool isDone = false;
  if (options.beside) {
    isDone = tools::WatchBeside(port,
                                {[&](const tools::Received& received) { monitor.Show(received); },
                                 [&](const tools::Incident& incident) { monitor.Show(incident); }},
                                loop);
  } else {
    isDone = Listen(port, monitor, loop);
  }
  return isDone && !monitor.Failed() ? EXIT_SUCCESS : EXIT_FAILURE;
}
