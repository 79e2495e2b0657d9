#include "frame/NetworkInterfaces.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <span>

#include "frame/FileDescriptor.h"

namespace {

constexpr size_t kFewInterfaces = 16;

in_addr_t AddressOf(const sockaddr& address) {
  sockaddr_in internet{};
  memcpy(&internet, &address, sizeof internet);
  return internet.sin_addr.s_addr;
}

tFileDescriptor DatagramSocket() {
  return tFileDescriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

}  // namespace

bool GetInterfaceAddresses(std::vector<in_addr_t>& addresses) {
  addresses.clear();
  tFileDescriptor socket = DatagramSocket();
  if (!socket.IsOpen()) {
    perror("socket");
    return false;
  }
  ifconf list{};
  if (ioctl(socket.Get(), SIOCGIFCONF, &list) < 0) {
    perror("ioctl");
    return false;
  }
  if (list.ifc_len == 0) {
    // The descriptor stays open. That it is lost here does no harm: a unit that has no address at
    // all, not even that of its loopback interface, receives nothing that would be asked about.
    socket.Release();
    return false;
  }
  // Asked for with every datagram received, so the usual few interfaces cost no allocation.
  ifreq few[kFewInterfaces];
  std::vector<ifreq> many;
  list.ifc_req = few;
  if (static_cast<size_t>(list.ifc_len) > sizeof few) {
    many.resize(static_cast<size_t>(list.ifc_len) / sizeof(ifreq));
    list.ifc_req = many.data();
  }
  if (ioctl(socket.Get(), SIOCGIFCONF, &list) < 0) {
    perror("ioctl2");
    return false;
  }
  const std::span<const ifreq> records(list.ifc_req,
                                       static_cast<size_t>(list.ifc_len) / sizeof(ifreq));
  for (const ifreq& record : records) addresses.push_back(AddressOf(record.ifr_addr));
  return true;
}

bool GetInterfaceAddress(const std::string& name, in_addr_t& address) {
  const tFileDescriptor socket = DatagramSocket();
  if (!socket.IsOpen()) return false;
  ifreq request{};
  request.ifr_addr.sa_family = AF_INET;
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  address = ioctl(socket.Get(), SIOCGIFADDR, &request) == 0 ? AddressOf(request.ifr_addr) : 0;
  return true;
}
