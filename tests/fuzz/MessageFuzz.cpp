// Texts from outside (volume labels, mount points, the names of other units' shares) end in one
// well-formed message, whatever they hold.

#include <algorithm>
#include <string>
#include <string_view>

#include "Source.h"
#include "frame/Log.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/DataSourceMessage.h"
#include "messaging/MessageFrame.h"
#include "storage/UsbHub.h"
#include "volumes/MediaLinks.h"

namespace {

/// Cuts a text up to the next line end off the front of `rest`.
std::string Take(std::string_view& rest) {
  const size_t length = std::min(rest.find('\n'), rest.size());
  const std::string taken(rest.substr(0, length));
  rest.remove_prefix(std::min(length + 1, rest.size()));
  return taken;
}

size_t CountOf(const std::string& text, char character) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), character));
}

/// Nothing that a value held may look like a part of the message's own form.
void CheckForm(const std::string& text, bool arrival) {
  constexpr size_t kArrivalAttributes = 9 + 2;
  constexpr size_t kRemovalAttributes = 1 + 2;
  Require(CountOf(text, '"') == 2 * (arrival ? kArrivalAttributes : kRemovalAttributes));
  Require(CountOf(text, '<') == 5);
  Require(CountOf(text, '>') == 5);
  Require(std::none_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x20; }));
  for (size_t at = text.find('&'); at != std::string::npos; at = text.find('&', at + 1)) {
    const size_t end = text.find(';', at);
    Require(end != std::string::npos && end - at <= 5);
  }
}

void CheckFrame(const std::string& text) {
  if (text.size() > kMaxMessageBytes) return;
  tFrameBuffer frame;
  const size_t length = EncodeFrame(text, frame);
  Require(length == 6 + 2 * text.size());
  Require(size_t{frame[0]} * 256 + frame[1] + 2 == length);
  for (size_t unit = 0; unit < text.size(); ++unit) {
    Require(frame[6 + 2 * unit] == 0);
    Require(frame[7 + 2 * unit] == static_cast<uint8_t>(text[unit]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetLogLevel(0);
  if (size == 0) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  DataSourceInfo info;
  info.arrival = (data[0] & 1) != 0;
  info.memoryCard = (data[0] & 2) != 0;
  info.path = Take(rest);
  info.friendlyName = Take(rest);
  info.key = Take(rest);
  info.contentId = Take(rest);
  info.serialNumber = rest;
  const size_t keyBytes = info.key.size();
  const std::string text = BuildDataSourceMessage(info);
  Require(info.key.size() == keyBytes);
  CheckForm(text, info.arrival);
  CheckFrame(text);

  std::string hub;
  if (UsbHubFromSysfsPath(info.path, hub)) Require(hub.find_first_of("/:.") == std::string::npos);
  Require(MediaLinkTarget(info.path).size() <= info.path.size());
  Require(MediaLinkName("usb", info.path, 0, 0).starts_with("USB Memory Card"));
  return 0;
}
