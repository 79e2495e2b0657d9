// voldrake-monitor: stands where the display application would and shows every message that it
// gets.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "program/MainLoop.h"
#include "tools/MessageFormat.h"
#include "tools/MessageServer.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"

namespace {

constexpr const char* kSummary =
    "Listens on 127.0.0.1 where the display application would and shows every message, one line\n"
    "each. What is not well formed is shown with the reason and its bytes.";

struct Options {
  int port = 8080;
  gboolean json = FALSE;
  gboolean raw = FALSE;
  int count = 0;
};

bool ReadMonitorOptions(int argc, char* argv[], Options& options) {
  const GOptionEntry entries[] = {
      {"port", 0, 0, G_OPTION_ARG_INT, &options.port,
       "Port to listen on (default 8080; 0 takes a free one)", "PORT"},
      {"json", 0, 0, G_OPTION_ARG_NONE, &options.json,
       "One JSON object a line; each character of a text is one byte of it", nullptr},
      {"raw", 0, 0, G_OPTION_ARG_NONE, &options.raw, "Show the bytes of every frame", nullptr},
      {"count", 0, 0, G_OPTION_ARG_INT, &options.count,
       "End after N messages, faulty ones included", "N"},
      GOptionEntry{}};
  if (!program::ReadOptions(argc, argv, kSummary, entries)) return false;
  const char* complaint = nullptr;
  if (options.port < 0 || options.port > UINT16_MAX) complaint = "the port must be 0 to 65535";
  if (options.count < 0) complaint = "the count cannot be negative";
  if (options.json && options.raw) complaint = "--json and --raw exclude each other";
  if (complaint != nullptr) program::Complain(complaint);
  return complaint == nullptr;
}

/// Shows frames on standard output and ends the main loop when it is done.
class Monitor {
 public:
  Monitor(const Options& options, program::MainLoop& loop) : options_(options), loop_(loop) {}

  void Show(tools::Frame frame) {
    if (done_) return;
    const bool isMessage = !frame.bytes.empty();
    const auto received = tools::Examine(std::move(frame), std::chrono::system_clock::now());
    failed_ = !program::Print(Format(received));
    if (isMessage) ++shown_;
    done_ = failed_ || (options_.count > 0 && shown_ >= options_.count);
    if (done_) loop_.Quit();
  }

  [[nodiscard]] bool Failed() const { return failed_; }

 private:
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

}  // namespace

int main(int argc, char* argv[]) {
  g_set_prgname("voldrake-monitor");
  Options options;
  if (!ReadMonitorOptions(argc, argv, options)) return EXIT_FAILURE;

  program::MainLoop loop;
  Monitor monitor(options, loop);
  tools::MessageServer server([&](tools::Frame frame) { monitor.Show(std::move(frame)); });
  if (std::string error; !server.Listen(static_cast<std::uint16_t>(options.port), error)) {
    program::Complain(error);
    return EXIT_FAILURE;
  }
  program::Complain("listening on 127.0.0.1:" + std::to_string(server.Port()));
  loop.Run();
  return monitor.Failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}
