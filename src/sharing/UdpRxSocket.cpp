#include "sharing/UdpRxSocket.h"

#include <arpa/inet.h>
#include <netinet/ether.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "frame/Assert.h"
#include "frame/Log.h"
#include "frame/NetworkInterfaces.h"
#include "frame/SystemCall.h"
#include "frame/Text.h"
#include "sharing/DottedAddress.h"

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

ssize_t CUdpRxSocket::_Receive(std::span<uint8_t> buffer, int flags, sockaddr_in& sender) {
  sender = {};
  iovec element{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = &sender;
  message.msg_namelen = sizeof sender;
  message.msg_iov = &element;
  message.msg_iovlen = 1;
  return RetryInterrupted([&] { return recvmsg(m_Socket.Get(), &message, flags); });
}

bool CUdpRxSocket::_BlockingRead(std::span<uint8_t> buffer, size_t* lenRx, sockaddr_in* sender) {
  VOLDRAKE_ASSERT(lenRx != 0);
  sockaddr_in source;
  const ssize_t length = _Receive(buffer, 0, source);
  if (length < 0) {
    m_LastError = errno;
    // What the line calls the port is the error number too: those who read logs know it so.
    Log("CUdpRxSocket::_BlockingRead: recvmsg failed! Port: " + std::to_string(m_LastError) +
            " Error: " + std::to_string(m_LastError),
        kLogInfo);
    return false;
  }
  if (source.sin_family == AF_UNSPEC) return false;
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
    if (!_ReadNext(buffer, lenRx, source)) return tReadResult::kFailed;
  } while (_IsOwnAddress(source.sin_addr.s_addr));
  if (sender != nullptr) *sender = Dotted(source.sin_addr);
  const std::optional<tHardwareAddress> address = m_Resolver.Resolve(m_Socket.Get(), source);
  if (!address) {
    m_LastError = m_Resolver.LastError();
    return tReadResult::kUnresolved;
  }
  isPeer = *address == m_PeerMac && m_PeerMac != tHardwareAddress{};
  return tReadResult::kReceived;
}

bool CUdpRxSocket::_ReadNext(std::span<uint8_t> buffer, size_t* lenRx, sockaddr_in& sender) {
  if (m_Resolver.IsCatchingUp()) {
    const ssize_t length = _Receive(buffer, MSG_DONTWAIT, sender);
    if (length >= 0) {
      *lenRx = static_cast<size_t>(length);
      return sender.sin_family != AF_UNSPEC;
    }
    m_Resolver.EndCatchingUp();
  }
  return _BlockingRead(buffer, lenRx, &sender);
}

bool CUdpRxSocket::_IsOwnAddress(in_addr_t address) {
  return GetInterfaceAddresses(m_OwnAddresses) &&
         std::find(m_OwnAddresses.begin(), m_OwnAddresses.end(), address) != m_OwnAddresses.end();
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
