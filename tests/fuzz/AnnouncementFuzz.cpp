// Datagrams come from anybody on the network: reading one may not look beyond its end, and what was
// read can be announced again and comes back the same.

#include "Source.h"
#include "sharing/NfsServiceMessage.h"

namespace {

void CheckText(const std::string& text, size_t received) {
  Require(text.size() < received);
  Require(text.find('\0') == std::string::npos);
}

bool Same(const NFS_DATA_T& left, const NFS_DATA_T& right) {
  return left.path == right.path && left.mediaType == right.mediaType && left.key == right.key &&
         left.friendlyName == right.friendlyName && left.readOnly == right.readOnly;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CNfsServiceMessage received;
  if (!received.Decode({data, size})) return 0;
  Require(size > 20);
  const NFS_DATA_T service = *received.GetNfsServiceDataPtr();
  CheckText(service.path, size);
  CheckText(service.key, size);
  CheckText(service.friendlyName, size);
  Require(received.GetPath() == service.path);
  if (!CNfsServiceMessage::Fits(service)) return 0;

  CNfsServiceMessage sent;
  sent.Set(received.GetMessageType(), service);
  CNfsServiceMessage again;
  Require(again.Decode(sent.Datagram()));
  Require(again.GetMessageType() == received.GetMessageType());
  Require(Same(*again.GetNfsServiceDataPtr(), service));
  return 0;
}
