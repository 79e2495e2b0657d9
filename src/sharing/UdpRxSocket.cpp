#include "sharing/UdpRxSocket.h"

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <netinet/ether.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <thread>

#include "frame/Assert.h"
#include "frame/Log.h"
#include "frame/NetworkInterfaces.h"
#include "frame/SystemCall.h"
#include "frame/Text.h"
#include "sharing/SharingNames.h"

namespace {

constexpr int kResolveTries = 4;
constexpr std::chrono::milliseconds kResolvePause{250};

/// Port 9 as stored without conversion to network order, which is 2304 on the wire of a
/// little-endian unit; what listens there does not matter, the datagram only makes the kernel
/// resolve the sender.
constexpr uint16_t kNudgePortAsStored = 9;

std::string Dotted(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) != nullptr ? text : "";
}

}  // namespace

bool CUdpRxSocket::_Fail(const char* operation) {
  m_LastError = errno;
  Log(std::string("CUdpRxSocket::") + operation + " failed! Error: " + std::to_string(m_LastError),
      kLogInfo);
  return false;
}

bool CUdpRxSocket::CreateSocket(uint16_t port) {
  m_Port = port;
  tFileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.IsOpen()) return _Fail("CreateSocket: Allocating socket");
  const int on = 1;
  if (setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    return _Fail("CreateSocket: setsockopt(SO_REUSEADDR)");
  }
  if (setsockopt(socket.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0) {
    return _Fail("CreateSocket: setsockopt(IP_PKTINFO)");
  }
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(port);
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
    return _Fail("CreateSocket: Binding socket");
  }
  m_Socket = std::move(socket);
  return true;
}

bool CUdpRxSocket::_AddMultiCast(const std::string& group) {
  return _AddMultiCast(inet_addr(group.c_str()));
}

bool CUdpRxSocket::_AddMultiCast(in_addr_t group) {
  m_SavedMembership.imr_multiaddr.s_addr = group;
  m_SavedMembership.imr_interface.s_addr = htonl(INADDR_ANY);
  if (setsockopt(m_Socket.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &m_SavedMembership,
                 sizeof m_SavedMembership) != 0) {
    return _Fail("_AddMultiCast: setsockopt(IP_ADD_MEMBERSHIP)");
  }
  m_Joined = true;
  return true;
}

bool CUdpRxSocket::_DropMultiCast(const std::string& group) {
  return _DropMultiCast(inet_addr(group.c_str()));
}

bool CUdpRxSocket::_DropMultiCast(in_addr_t group) {
  ip_mreq membership{};
  membership.imr_multiaddr.s_addr = group;
  membership.imr_interface.s_addr = htonl(INADDR_ANY);
  if (setsockopt(m_Socket.Get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership) !=
      0) {
    return _Fail("_DropMultiCast: setsockopt(IP_DROP_MEMBERSHIP)");
  }
  return true;
}

bool CUdpRxSocket::_DropSavedMultiCast() {
  if (m_Joined && setsockopt(m_Socket.Get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &m_SavedMembership,
                             sizeof m_SavedMembership) != 0) {
    return _Fail("_DropSavedMultiCast: setsockopt(IP_DROP_MEMBERSHIP)");
  }
  m_Joined = false;
  return false;
}

bool CUdpRxSocket::_BlockingRead(std::span<uint8_t> buffer, size_t* lenRx, sockaddr_in* sender) {
  VOLDRAKE_ASSERT(lenRx != 0);
  sockaddr_in source{};
  iovec element{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = &source;
  message.msg_namelen = sizeof source;
  message.msg_iov = &element;
  message.msg_iovlen = 1;
  ssize_t length = -1;
  if (m_CatchingUp) {
    length = RetryInterrupted([&] { return recvmsg(m_Socket.Get(), &message, MSG_DONTWAIT); });
    if (length < 0) {
      m_CatchingUp = false;
      if (m_DroppedCatchingUp > 0) {
        Log("CUdpRxSocket::FilteredRead: dropped " + std::to_string(m_DroppedCatchingUp) +
                " datagrams of senders without known hardware address",
            kLogWarning);
      }
      m_DroppedCatchingUp = 0;
      message.msg_namelen = sizeof source;
    }
  }
  if (length < 0) {
    length = RetryInterrupted([&] { return recvmsg(m_Socket.Get(), &message, 0); });
  }
  if (length < 0) {
    m_LastError = errno;
    // What the line calls the port is the error number too: those who read logs know it so.
    Log("CUdpRxSocket::_BlockingRead: recvmsg failed! Port: " + std::to_string(m_LastError) +
            " Error: " + std::to_string(m_LastError),
        kLogInfo);
    return false;
  }
  // Only a socket that was shut down gives a datagram from nobody.
  if (message.msg_namelen == 0) return false;
  *lenRx = static_cast<size_t>(length);
  if (sender != nullptr) *sender = source;
  return true;
}

bool CUdpRxSocket::ReadFrom(std::span<uint8_t> buffer, size_t* lenRx, in_addr_t* hostOrderSender) {
  sockaddr_in sender{};
  if (!_BlockingRead(buffer, lenRx, &sender)) return false;
  if (hostOrderSender != nullptr) *hostOrderSender = ntohl(sender.sin_addr.s_addr);
  return true;
}

tReadResult CUdpRxSocket::FilteredRead(std::span<uint8_t> buffer, size_t* lenRx,
                                       std::string* sender, bool& isPeer) {
  isPeer = false;
  sockaddr_in source{};
  do {
    if (!_BlockingRead(buffer, lenRx, &source)) return tReadResult::kFailed;
  } while (_IsOwnAddress(source.sin_addr.s_addr));
  if (sender != nullptr) *sender = Dotted(source);
  tHardwareAddress address{};
  if (!_ResolveSender(source, address)) return tReadResult::kUnresolved;
  isPeer = address == m_PeerMac && m_PeerMac != tHardwareAddress{};
  return tReadResult::kReceived;
}

bool CUdpRxSocket::_IsOwnAddress(in_addr_t address) {
  return GetInterfaceAddresses(m_OwnAddresses) &&
         std::find(m_OwnAddresses.begin(), m_OwnAddresses.end(), address) != m_OwnAddresses.end();
}

bool CUdpRxSocket::_ResolveSender(const sockaddr_in& sender, tHardwareAddress& address) {
  if (m_CatchingUp) {
    if (_QueryHardwareAddress(sender, address)) return true;
    ++m_DroppedCatchingUp;
    _NudgeSender(sender);
    return false;
  }
  for (int attempt = 1; attempt <= kResolveTries; ++attempt) {
    if (_QueryHardwareAddress(sender, address)) return true;
    if (attempt == kResolveTries) {
      Log("attempt " + std::to_string(attempt) + " to obtain MAC for " + Dotted(sender) +
              " failed with error " + std::to_string(m_LastError),
          kLogError);
    }
    _NudgeSender(sender);
    std::this_thread::sleep_for(kResolvePause);
  }
  m_CatchingUp = true;
  return false;
}

bool CUdpRxSocket::_QueryHardwareAddress(const sockaddr_in& sender, tHardwareAddress& address) {
  arpreq request{};
  memcpy(&request.arp_pa, &sender, sizeof sender);
  std::string_view(kShareInterface).copy(request.arp_dev, sizeof request.arp_dev - 1);
  if (ioctl(m_Socket.Get(), SIOCGARP, &request) != 0) {
    m_LastError = errno;
    return false;
  }
  if ((request.arp_flags & ATF_COM) == 0) {
    // The kernel is still asking around; its entry holds six zero bytes so far.
    m_LastError = ENXIO;
    return false;
  }
  memcpy(address.data(), request.arp_ha.sa_data, address.size());
  return true;
}

void CUdpRxSocket::_NudgeSender(const sockaddr_in& sender) {
  using std::chrono::steady_clock;
  // Senders can be made up, and each would take a place in the kernel's table of neighbours.
  if (steady_clock::now() < m_NextNudge) return;
  sockaddr_in destination = sender;
  destination.sin_port = kNudgePortAsStored;
  const uint8_t zero = 0;
  // A datagram that cannot be sent shows as an address that stays unknown.
  sendto(m_Socket.Get(), &zero, sizeof zero, MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
  m_NextNudge = steady_clock::now() + kResolvePause;
}

bool CUdpRxSocket::SetPeerMac(const std::string& mac) {
  if (mac.empty()) {
    m_PeerMac = {};
    return true;
  }
  ether_addr parsed{};
  if (ether_aton_r(mac.c_str(), &parsed) == nullptr) {
    Log("Invalid peer MAC address: " + Printable(mac), kLogError);
    return false;
  }
  std::copy_n(parsed.ether_addr_octet, m_PeerMac.size(), m_PeerMac.begin());
  return true;
}

void CUdpRxSocket::Shutdown() {
  // Says that the socket is not connected, and ends the reading all the same.
  shutdown(m_Socket.Get(), SHUT_RD);
}

void CUdpRxSocket::Close() {
  if (!m_Socket.IsOpen()) return;
  Log("CUdpRxSocket::Close: Closing port: " + std::to_string(m_Port), kLogInfo);
  _DropSavedMultiCast();
  Shutdown();
  m_Socket.Reset();
}
