#include "tools/shares/ListShares.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>

#include "glib/Handles.h"
#include "program/MainLoop.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"
#include "tools/shares/AnnouncementListener.h"
#include "tools/shares/ShareFormat.h"

namespace tools {

namespace {

constexpr const char* kSummary =
    "Shows the shares that units announce on the network as they come and go.\n"
    "Two further commands send announcements, for tests:\n"
    "  voldrake-shares announce --help\n"
    "  voldrake-shares withdraw --help";

constexpr guint kTickMs = 100;
constexpr std::size_t kMaxShares = 4096;

struct Options {
  gboolean json = FALSE;
  std::optional<double> onceSeconds;
  char* interface = nullptr;
};

/// Returns nullopt, after a line on standard error, if the text is not a valid duration.
std::optional<double> Seconds(const char* text) {
  char* end = nullptr;
  const double seconds = g_ascii_strtod(text, &end);
  if (end != text && *end == '\0' && seconds >= 0 && seconds <= 86400) return seconds;
  program::Complain("the seconds must be 0 to 86400");
  return std::nullopt;
}

bool ReadListOptions(int argc, char* argv[], Options& options) {
  char* once = nullptr;
  const GOptionEntry entries[] = {
      {"json", 0, 0, G_OPTION_ARG_NONE, &options.json,
       "One JSON object per line; each character of a text is one byte of it", nullptr},
      {"once", 0, 0, G_OPTION_ARG_STRING, &once, "Listen for this long, list the shares, and exit",
       "SECONDS"},
      {"interface", 0, 0, G_OPTION_ARG_FILENAME, &options.interface,
       "Listen on this interface (default: as routed)", "NAME"},
      GOptionEntry{}};
  const bool isRead = program::ReadOptions(argc, argv, kSummary, entries);
  const glib::CharPointer ownedOnce(once);
  if (!isRead || once == nullptr) return isRead;
  options.onceSeconds = Seconds(once);
  return options.onceSeconds.has_value();
}

/// Follows the announcements and shows what changes.
class Watcher {
 public:
  Watcher(const Options& options, program::MainLoop& loop) : options_(options), loop_(loop) {}

  /// Takes one datagram. An empty one announces nothing and is passed over.
  void Hear(const std::string& sender, std::string_view datagram) {
    if (datagram.empty()) return;
    std::string fault;
    const auto announcement = DecodeAnnouncement(datagram, fault);
    if (!announcement) {
      ++malformed_;
      const auto time = WallTime::clock::now();
      Show(options_.json ? MalformedJsonText(sender, datagram, fault, time)
                         : MalformedTableText(sender, datagram, fault, time));
    } else if (const auto event = table_.Heard({sender, *announcement}, ShareTable::Clock::now())) {
      Show(*event);
    }
  }

  void Tick() {
    for (const ShareEvent& event : table_.Expire(ShareTable::Clock::now())) Show(event);
  }

  /// Lists what is there.
  void ShowPresent() {
    std::string text;
    const auto time = WallTime::clock::now();
    for (const Share& share : table_.Present()) {
      text += options_.json ? JsonText(share, time) : TableText(share);
    }
    failed_ = !program::Print(text);
    if (text.empty()) program::Complain("no share was announced");
    if (malformed_ != 0) program::Complain(std::to_string(malformed_) + " malformed datagrams");
  }

  [[nodiscard]] bool Failed() const { return failed_; }

 private:
  void Show(const ShareEvent& event) {
    const auto time = WallTime::clock::now();
    Show(options_.json ? JsonText(event, time) : TableText(event, time));
  }

  void Show(const std::string& text) {
    if (options_.onceSeconds || failed_) return;
    failed_ = !program::Print(text);
    if (failed_) loop_.Quit();
  }

  const Options options_;
  program::MainLoop& loop_;
  ShareTable table_{kMaxShares};
  std::size_t malformed_ = 0;
  bool failed_ = false;
};

gboolean OnTick(gpointer watcher) {
  static_cast<Watcher*>(watcher)->Tick();
  return G_SOURCE_CONTINUE;
}

gboolean OnTimeIsUp(gpointer loop) {
  static_cast<program::MainLoop*>(loop)->Quit();
  return G_SOURCE_CONTINUE;
}

glib::EventSource Timer(guint milliseconds, GSourceFunc function, gpointer data) {
  GSource* source = g_timeout_source_new(milliseconds);
  g_source_set_callback(source, function, data, nullptr);
  return glib::EventSource(source);
}

}  // namespace

int ListShares(int argc, char* argv[]) {
  Options options;
  if (!ReadListOptions(argc, argv, options)) return EXIT_FAILURE;
  const glib::CharPointer interface(options.interface);

  program::MainLoop loop;
  Watcher watcher(options, loop);
  AnnouncementListener listener([&](const std::string& sender, std::string_view datagram) {
    watcher.Hear(sender, datagram);
  });
  if (std::string error; !listener.Join(interface.get(), error)) {
    program::Complain(error);
    return EXIT_FAILURE;
  }
  const glib::EventSource tick = Timer(kTickMs, OnTick, &watcher);
  glib::EventSource end;
  if (options.onceSeconds) {
    end = Timer(static_cast<guint>(*options.onceSeconds * 1000), OnTimeIsUp, &loop);
  } else {
    program::Complain("listening");
  }
  loop.Run();
  if (options.onceSeconds) watcher.ShowPresent();
  return watcher.Failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace tools
