// The tools show what they received, whatever it is: a connection's bytes are cut into frames that
// together are those bytes, each is shown without a control character, and a datagram that is read
// is written back the same.

#include <algorithm>

#include "Source.h"
#include "tools/monitor/MessageFormat.h"
#include "tools/monitor/Received.h"
#include "tools/shares/Announcement.h"

namespace {

void CheckShown(const std::string& text) {
  Require(!text.empty() && text.back() == '\n');
  Require(std::none_of(text.begin(), text.end(), [](char byte) {
    return byte != '\n' && (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F);
  }));
}

size_t Show(tools::Frame frame) {
  const size_t bytes = frame.bytes.size();
  const tools::Received received = tools::Examine(std::move(frame), {});
  Require(received.message.has_value() == received.fault.empty());
  Require(received.bytes.size() == bytes);
  CheckShown(tools::TableText(received));
  CheckShown(tools::JsonText(received));
  CheckShown(tools::RawText(received));
  return bytes;
}

void FuzzConnection(Source& source) {
  tools::FrameReader reader;
  const size_t piece = 1 + source.Byte();
  const std::string bytes = source.Rest();
  size_t appended = 0;
  size_t shown = 0;
  while (appended < bytes.size() && reader.Room() > 0) {
    const size_t length = std::min({piece, bytes.size() - appended, reader.Room()});
    reader.Append(std::string_view(bytes).substr(appended, length));
    appended += length;
    while (auto frame = reader.Next()) shown += Show(std::move(*frame));
  }
  if (auto rest = reader.Rest()) shown += Show(std::move(*rest));
  Require(shown == appended);
}

void FuzzMessage(Source& source) {
  const std::string text = source.Rest();
  std::string fault;
  const auto message = tools::ParseMessage(text, fault);
  Require(message.has_value() == fault.empty());
  Require(std::all_of(fault.begin(), fault.end(),
                      [](unsigned char byte) { return byte >= 0x20 && byte < 0x80; }));
}

void FuzzDatagram(Source& source) {
  const std::string datagram = source.Rest();
  std::string fault;
  const auto announcement = tools::DecodeAnnouncement(datagram, fault);
  Require(announcement.has_value() == fault.empty());
  if (!announcement) return;
  Require(tools::ReactionOfUnits(datagram) == tools::UnitReaction::Takes);
  const auto again = tools::EncodeAnnouncement(*announcement);
  Require(again.has_value());
  Require(tools::DecodeAnnouncement(*again, fault) == announcement);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Source source(data, size);
  switch (source.Choice(3)) {
    case 0:
      FuzzConnection(source);
      break;
    case 1:
      FuzzMessage(source);
      break;
    default:
      FuzzDatagram(source);
      break;
  }
  return 0;
}
