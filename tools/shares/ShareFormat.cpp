#include "tools/shares/ShareFormat.h"

#include "program/JsonObject.h"
#include "program/Printable.h"
#include "tools/common/TimeText.h"

namespace tools {

namespace {

constexpr std::size_t kDumpRows = 16;
constexpr std::size_t kEventWidth = 11;
constexpr std::size_t kSourceWidth = 34;
constexpr std::size_t kNameWidth = 24;

const char* Word(ShareChange change) {
  switch (change) {
    case ShareChange::Appeared:
      return "appeared";
    case ShareChange::Changed:
      return "changed";
    case ShareChange::Withdrawn:
      return "withdrawn";
    case ShareChange::Silent:
      return "silent";
    case ShareChange::NoRoom:
      return "no-room";
  }
  return "";
}

const char* Consequence(UnitReaction reaction) {
  switch (reaction) {
    case UnitReaction::Ignores:
      return "";
    case UnitReaction::Takes:
      return "; units still accept it";
    case UnitReaction::Ends:
      return "; it ends every unit that was not built with VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS";
  }
  return "";
}

std::string Head(const char* event, WallTime time) {
  return ClockText(time) + "  " + program::Padded(event, kEventWidth);
}

program::JsonObject JsonHead(const char* event, const std::string& sender, WallTime time) {
  return program::JsonObject()
      .AddText("time", IsoText(time))
      .AddText("event", event)
      .AddBytes("sender", sender);
}

std::string JsonLine(const char* event, const Share& share, WallTime time) {
  const Announcement& announcement = share.announcement;
  return JsonHead(event, share.sender, time)
      .AddBytes("path", announcement.path)
      .AddBytes("key", announcement.key)
      .AddBytes("friendlyname", announcement.friendlyName)
      .AddNumber("mediatype", announcement.mediaType)
      .AddFlag("readonly", announcement.readOnly)
      .Line();
}

}  // namespace

std::string TableText(const Share& share) {
  const Announcement& announcement = share.announcement;
  return program::Padded(program::Printable(share.sender + ":" + announcement.path), kSourceWidth) +
         ' ' + program::Padded(program::Quoted(announcement.friendlyName), kNameWidth) + ' ' +
         (announcement.readOnly ? "read-only" : "writable ") +
         "  media=" + std::to_string(announcement.mediaType) +
         " key=" + program::Quoted(announcement.key) + "\n";
}

std::string TableText(const ShareEvent& event, WallTime time) {
  return Head(Word(event.change), time) + TableText(event.share);
}

std::string JsonText(const ShareEvent& event, WallTime time) {
  return JsonLine(Word(event.change), event.share, time);
}

std::string JsonText(const Share& share, WallTime time) {
  return JsonLine("present", share, time);
}

std::string MalformedTableText(const std::string& sender, std::string_view datagram,
                               const std::string& fault, WallTime time) {
  return Head("malformed", time) + "from " + program::Printable(sender) + ": " +
         program::Printable(fault) + Consequence(ReactionOfUnits(datagram)) + "\n" +
         program::HexDump(datagram, kDumpRows);
}

std::string MalformedJsonText(const std::string& sender, std::string_view datagram,
                              const std::string& fault, WallTime time) {
  const UnitReaction reaction = ReactionOfUnits(datagram);
  program::JsonObject line = JsonHead("malformed", sender, time);
  line.AddText("reason", fault).AddFlag("taken_by_units", reaction == UnitReaction::Takes);
  if (reaction == UnitReaction::Ends) line.AddFlag("ends_units", true);
  return line.AddText("bytes", program::HexDigits(datagram)).Line();
}

}  // namespace tools
