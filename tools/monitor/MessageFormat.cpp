#include "tools/monitor/MessageFormat.h"

#include <limits>

#include "program/JsonObject.h"
#include "program/Printable.h"
#include "tools/common/TimeText.h"

namespace tools {

namespace {

constexpr std::size_t kTableDumpRows = 16;
constexpr std::size_t kKindWidth = 9;
constexpr std::size_t kPathWidth = 22;
constexpr std::size_t kNameWidth = 24;
constexpr std::size_t kTypeWidth = 12;
constexpr std::size_t kFlagWidth = 6;

const char* Kind(const Received& received) {
  if (!received.message) return "faulty";
  return received.message->arrival ? "arrival" : "removal";
}

const char* Word(Mishap mishap) {
  switch (mishap) {
    case Mishap::Refused:
      return "refused";
    case Mishap::Waiting:
      return "waiting";
    case Mishap::Late:
      return "late";
    case Mishap::Lost:
      return "lost";
  }
  return "";
}

std::string Head(std::chrono::system_clock::time_point time, const char* kind) {
  return ClockText(time) + "  " + program::Padded(kind, kKindWidth);
}

std::string Head(const Received& received) {
  return Head(received.time, Kind(received));
}

const char* BoolText(bool value) {
  return value ? "true" : "false";
}

std::string Attributes(const Message& message) {
  if (!message.arrival) return program::Printable(message.path);
  std::string text = program::Padded(program::Printable(message.path), kPathWidth);
  text += ' ' + program::Padded(program::Quoted(message.friendlyName), kNameWidth);
  text += ' ' + program::Padded(message.type, kTypeWidth);
  text += "readonly=" + program::Padded(BoolText(message.readOnly), kFlagWidth);
  text += "remote=" + program::Padded(BoolText(message.remote), kFlagWidth);
  text += "fixed=" + program::Padded(BoolText(message.fixed), kFlagWidth);
  text += "key=" + program::Quoted(message.key);
  text += " contentid=" + program::Quoted(message.contentId);
  text += " serialnumber=" + program::Quoted(message.serialNumber);
  return text;
}

void AddAttributes(const Message& message, program::JsonObject& line) {
  line.AddText("message", message.arrival ? "arrival" : "removal").AddBytes("path", message.path);
  if (!message.arrival) return;
  line.AddBytes("type", message.type)
      .AddBytes("key", message.key)
      .AddBytes("contentid", message.contentId)
      .AddBytes("serialnumber", message.serialNumber)
      .AddBytes("friendlyname", message.friendlyName)
      .AddFlag("remote", message.remote)
      .AddFlag("readonly", message.readOnly)
      .AddFlag("fixed", message.fixed);
}

}  // namespace

std::string TableText(const Received& received) {
  if (received.message) return Head(received) + Attributes(*received.message) + "\n";
  return Head(received) + program::Printable(received.fault) + "\n" +
         program::HexDump(received.bytes, kTableDumpRows);
}

std::string JsonText(const Received& received) {
  program::JsonObject line;
  line.AddText("time", IsoText(received.time)).AddFlag("well_formed", received.message.has_value());
  if (received.message) {
    AddAttributes(*received.message, line);
  } else {
    line.AddText("reason", received.fault).AddText("bytes", program::HexDigits(received.bytes));
  }
  if (received.text) line.AddBytes("text", *received.text);
  return line.Line();
}

std::string RawText(const Received& received) {
  std::string line = Head(received) + std::to_string(received.bytes.size()) + " bytes";
  if (!received.message) line += ": " + program::Printable(received.fault);
  return line + "\n" + program::HexDump(received.bytes, std::numeric_limits<std::size_t>::max());
}

std::string TableText(const Incident& incident) {
  std::string line = Head(incident.time, Word(incident.mishap));
  if (!incident.message.empty()) {
    line += incident.message + " of " + program::Printable(incident.path) + ": ";
  }
  return line + incident.reason + "\n";
}

std::string JsonText(const Incident& incident) {
  program::JsonObject line;
  line.AddText("time", IsoText(incident.time))
      .AddText("incident", Word(incident.mishap))
      .AddText("reason", incident.reason);
  if (!incident.message.empty()) {
    line.AddText("message", incident.message).AddBytes("path", incident.path);
  }
  return line.Line();
}

}  // namespace tools
