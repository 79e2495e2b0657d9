#include "tools/ShareFormat.h"

#include "program/Printable.h"
#include "tools/TimeText.h"

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

std::string JsonHead(const char* event, const std::string& sender, WallTime time) {
  return R"({"time":)" + program::JsonString(IsoText(time)) + R"(,"event":)" +
         program::JsonString(event) + R"(,"sender":)" + program::JsonString(sender);
}

std::string JsonFields(const Announcement& announcement) {
  return R"(,"path":)" + program::JsonString(announcement.path) + R"(,"key":)" +
         program::JsonString(announcement.key) + R"(,"friendlyname":)" +
         program::JsonString(announcement.friendlyName) + R"(,"mediatype":)" +
         std::to_string(announcement.mediaType) + R"(,"readonly":)" +
         (announcement.readOnly ? "true" : "false") + "}\n";
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
  return JsonHead(Word(event.change), event.share.sender, time) +
         JsonFields(event.share.announcement);
}

std::string JsonText(const Share& share, WallTime time) {
  return JsonHead("present", share.sender, time) + JsonFields(share.announcement);
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
  return JsonHead("malformed", sender, time) + R"(,"reason":)" + program::JsonString(fault) +
         R"(,"taken_by_units":)" + (reaction == UnitReaction::Takes ? "true" : "false") +
         (reaction == UnitReaction::Ends ? R"(,"ends_units":true)" : "") + R"(,"bytes":")" +
         program::HexDigits(datagram) + "\"}\n";
}

}  // namespace tools
