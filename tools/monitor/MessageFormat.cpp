#include "tools/monitor/MessageFormat.h"

#include <limits>

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

std::string JsonAttributes(const Message& message) {
  std::string text =
      R"(,"message":)" + program::JsonString(message.arrival ? "arrival" : "removal");
  text += R"(,"path":)" + program::JsonString(message.path);
  if (!message.arrival) return text;
  text += R"(,"type":)" + program::JsonString(message.type);
  text += R"(,"key":)" + program::JsonString(message.key);
  text += R"(,"contentid":)" + program::JsonString(message.contentId);
  text += R"(,"serialnumber":)" + program::JsonString(message.serialNumber);
  text += R"(,"friendlyname":)" + program::JsonString(message.friendlyName);
  text += std::string(R"(,"remote":)") + BoolText(message.remote);
  text += std::string(R"(,"readonly":)") + BoolText(message.readOnly);
  text += std::string(R"(,"fixed":)") + BoolText(message.fixed);
  return text;
}

}  // namespace

std::string TableText(const Received& received) {
  if (received.message) return Head(received) + Attributes(*received.message) + "\n";
  return Head(received) + program::Printable(received.fault) + "\n" +
         program::HexDump(received.bytes, kTableDumpRows);
}

std::string JsonText(const Received& received) {
  std::string line = R"({"time":)" + program::JsonString(IsoText(received.time)) +
                     R"(,"well_formed":)" + BoolText(received.message.has_value());
  if (received.message) {
    line += JsonAttributes(*received.message);
  } else {
    line += R"(,"reason":)" + program::JsonString(received.fault) + R"(,"bytes":")" +
            program::HexDigits(received.bytes) + '"';
  }
  if (received.text) line += R"(,"text":)" + program::JsonString(*received.text);
  return line + "}\n";
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
  std::string line = R"({"time":)" + program::JsonString(IsoText(incident.time)) +
                     R"(,"incident":)" + program::JsonString(Word(incident.mishap)) +
                     R"(,"reason":)" + program::JsonString(incident.reason);
  if (!incident.message.empty()) {
    line += R"(,"message":)" + program::JsonString(incident.message) + R"(,"path":)" +
            program::JsonString(incident.path);
  }
  return line + "}\n";
}

}  // namespace tools
