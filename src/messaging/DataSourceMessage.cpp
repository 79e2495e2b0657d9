#include "messaging/DataSourceMessage.h"

#include "frame/Text.h"
#include "messaging/CidCrc.h"
#include "messaging/DataSourceInfo.h"

namespace {

std::string Escaped(const std::string& value) {
  std::string escaped;
  escaped.reserve(value.size());
  for (const char byte : value) {
    switch (byte) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\t':
        escaped += "&#9;";
        break;
      case '\n':
        escaped += "&#10;";
        break;
      case '\r':
        escaped += "&#13;";
        break;
      default:
        escaped += static_cast<unsigned char>(byte) < 0x20 ? '?' : byte;
    }
  }
  return escaped;
}

}  // namespace

std::string BuildDataSourceMessage(DataSourceInfo& info) {
  const std::string head = R"(<message version="1" type="datasource"><content>)";
  if (info.memoryCard) info.key = CidCrcCorrect(info.key);
  if (!info.arrival) {
    return head + R"(<dataremoval path=")" + Escaped(info.path) + R"("/></content></message>)";
  }
  return head + R"(<dataarrival path=")" + Escaped(info.path) +            //
         R"(" type=")" + (info.memoryCard ? "memorycard" : "harddrive") +  //
         R"(" key=")" + Escaped(info.key) +                                //
         R"(" contentid=")" + Escaped(info.contentId) +                    //
         R"(" serialnumber=")" + Escaped(info.serialNumber) +              //
         R"(" friendlyname=")" + Escaped(info.friendlyName) +              //
         R"(" remote=")" + BoolText(info.remote) +                         //
         R"(" readonly=")" + BoolText(info.readOnly) +                     //
         R"(" fixed=")" + BoolText(info.fixed) + R"(" /></content></message>)";
}
