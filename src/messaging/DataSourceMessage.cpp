#include "messaging/DataSourceMessage.h"

#include <string_view>

#include "frame/Text.h"
#include "messaging/CidCrc.h"
#include "messaging/DataSourceInfo.h"

namespace {

void AppendEscaped(std::string& text, std::string_view value) {
  for (const char byte : value) {
    switch (byte) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      case '\t':
        text += "&#9;";
        break;
      case '\n':
        text += "&#10;";
        break;
      case '\r':
        text += "&#13;";
        break;
      default:
        text += static_cast<unsigned char>(byte) < 0x20 ? '?' : byte;
    }
  }
}

/// Appends `literal`, which ends with an opening quote, and the value after it.
void Append(std::string& text, std::string_view literal, std::string_view value) {
  text += literal;
  AppendEscaped(text, value);
}

constexpr size_t kUsualBytes = 512;

}  // namespace

std::string BuildDataSourceMessage(DataSourceInfo& info) {
  if (info.memoryCard) info.key = CidCrcCorrect(info.key);
  std::string text;
  text.reserve(kUsualBytes);
  text += R"(<message version="1" type="datasource"><content>)";
  if (!info.arrival) {
    Append(text, R"(<dataremoval path=")", info.path);
    return text += R"("/></content></message>)";
  }
  Append(text, R"(<dataarrival path=")", info.path);
  Append(text, R"(" type=")", info.memoryCard ? "memorycard" : "harddrive");
  Append(text, R"(" key=")", info.key);
  Append(text, R"(" contentid=")", info.contentId);
  Append(text, R"(" serialnumber=")", info.serialNumber);
  Append(text, R"(" friendlyname=")", info.friendlyName);
  Append(text, R"(" remote=")", BoolText(info.remote));
  Append(text, R"(" readonly=")", BoolText(info.readOnly));
  Append(text, R"(" fixed=")", BoolText(info.fixed));
  return text += R"(" /></content></message>)";
}
