#include "tools/shares/SendAnnouncement.h"

#include <cstdlib>
#include <string>

#include "glib/Handles.h"
#include "program/MainLoop.h"
#include "program/Output.h"
#include "program/ProgramOptions.h"
#include "tools/shares/Announcement.h"
#include "tools/shares/AnnouncementSender.h"

namespace tools {

namespace {

constexpr const char* kAnnounceSummary =
    "Sends the announcement of one share to all units, or to one, as a unit would.";
constexpr const char* kWithdrawSummary =
    "Sends the withdrawal of one share to all units, or to one, as a unit would.";

constexpr guint kRepeatMs = 1000;

struct Options {
  Announcement announcement;
  std::string destination = kAnnouncementGroup;
  glib::CharPointer interface;
  bool repeat = false;
};

bool FitsField(int value) {
  return value >= 0 && value <= UINT16_MAX;
}

/// Returns false, after a line on standard error, if the options are invalid.
bool ReadSendOptions(std::uint16_t defaultType, int argc, char* argv[], Options& options) {
  char* texts[5] = {};
  int type = defaultType;
  int mediaType = 1;
  gboolean readOnly = FALSE;
  gboolean repeat = FALSE;
  const GOptionEntry entries[] = {
      {"path", 0, 0, G_OPTION_ARG_FILENAME, &texts[0], "The shared directory (required)", "PATH"},
      {"key", 0, 0, G_OPTION_ARG_FILENAME, &texts[1], "The volume's key (default empty)", "TEXT"},
      {"name", 0, 0, G_OPTION_ARG_FILENAME, &texts[2], "The friendly name (default empty)", "TEXT"},
      {"media-type", 0, 0, G_OPTION_ARG_INT, &mediaType, "The media type (default 1)", "N"},
      {"read-only", 0, 0, G_OPTION_ARG_NONE, &readOnly, "The share is read-only", nullptr},
      {"type", 0, 0, G_OPTION_ARG_INT, &type, "A message type other than the command's", "N"},
      {"to", 0, 0, G_OPTION_ARG_FILENAME, &texts[3], "Send to this unit instead of the group",
       "ADDRESS"},
      {"interface", 0, 0, G_OPTION_ARG_FILENAME, &texts[4],
       "Send to the group through this interface (default: as routed)", "NAME"},
      {"repeat", 0, 0, G_OPTION_ARG_NONE, &repeat, "Repeat every second until SIGTERM or SIGINT",
       nullptr},
      GOptionEntry{}};
  const bool withdraws = defaultType == kTypeWithdraw;
  const bool isRead =
      program::ReadOptions(argc, argv, withdraws ? kWithdrawSummary : kAnnounceSummary, entries,
                           withdraws ? "withdraw" : "announce");
  const glib::CharPointer path(texts[0]);
  const glib::CharPointer key(texts[1]);
  const glib::CharPointer name(texts[2]);
  const glib::CharPointer destination(texts[3]);
  options.interface.reset(texts[4]);
  if (!isRead) return false;
  if (path == nullptr || !FitsField(type) || !FitsField(mediaType)) {
    program::Complain(path == nullptr ? "--path is missing" : "a type must be 0 to 65535");
    return false;
  }
  if (destination != nullptr) options.destination = destination.get();
  options.repeat = repeat;
  options.announcement = {.type = static_cast<std::uint16_t>(type),
                          .mediaType = static_cast<std::uint16_t>(mediaType),
                          .readOnly = readOnly != FALSE,
                          .path = path.get(),
                          .key = key ? key.get() : "",
                          .friendlyName = name ? name.get() : ""};
  return true;
}

struct Repetition {
  AnnouncementSender& sender;
  const std::string& datagram;
};

/// A network that is away for a while does not end the repetition.
gboolean SendAgain(gpointer data) {
  const auto* repetition = static_cast<Repetition*>(data);
  std::string error;
  if (!repetition->sender.Send(repetition->datagram, error)) program::Complain(error);
  return G_SOURCE_CONTINUE;
}

}  // namespace

int SendAnnouncement(std::uint16_t type, int argc, char* argv[]) {
  Options options;
  if (!ReadSendOptions(type, argc, argv, options)) return EXIT_FAILURE;
  const auto datagram = EncodeAnnouncement(options.announcement);
  if (!datagram) {
    program::Complain("the texts do not fit into " + std::to_string(kMaxAnnouncementBytes) +
                      " bytes");
    return EXIT_FAILURE;
  }
  program::MainLoop loop;
  AnnouncementSender sender;
  std::string error;
  if (!sender.Open(options.destination, options.interface.get(), error) ||
      !sender.Send(*datagram, error)) {
    program::Complain(error);
    return EXIT_FAILURE;
  }
  if (!options.repeat) return EXIT_SUCCESS;

  Repetition repetition{sender, *datagram};
  GSource* source = g_timeout_source_new(kRepeatMs);
  g_source_set_callback(source, SendAgain, &repetition, nullptr);
  const glib::EventSource timer(source);
  loop.Run();
  return EXIT_SUCCESS;
}

}  // namespace tools
