#include "sharing/LinkLocalAddress.h"

#include <net/if.h>

#include "frame/NetworkInterfaces.h"
#include "sharing/SharingNames.h"

bool GetLinkLocalAddress(in_addr_t& address) {
  constexpr in_addr_t kNetwork = 0xA9FE0000;  // 169.254.0.0
  constexpr in_addr_t kMask = 0xFFFF0000;
  return GetInterfaceAddress(kShareInterface, address) && (ntohl(address) & kMask) == kNetwork;
}

tShareInterface GetShareInterface() {
  tShareInterface present;
  present.index = if_nametoindex(kShareInterface);
  if (!GetLinkLocalAddress(present.address)) present.address = 0;
  return present;
}
