#include "sharing/UdpTxSocket.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>

#include "frame/Assert.h"
#include "frame/SystemCall.h"

bool CUdpTxSocket::_RememberError(bool succeeded) {
  if (!succeeded) m_LastError = errno;
  return succeeded;
}

bool CUdpTxSocket::Create(int multicastTimeToLive) {
  m_Socket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return _RememberError(m_Socket.IsOpen() &&
                        setsockopt(m_Socket.Get(), IPPROTO_IP, IP_MULTICAST_TTL,
                                   &multicastTimeToLive, sizeof multicastTimeToLive) == 0);
}

bool CUdpTxSocket::SetAddress(const std::string& address, uint16_t port) {
  return SetAddress(ntohl(inet_addr(address.c_str())), port);
}

bool CUdpTxSocket::SetAddress(in_addr_t hostOrderAddress, uint16_t port) {
  m_Destination.sin_family = AF_INET;
  m_Destination.sin_port = htons(port);
  m_Destination.sin_addr.s_addr = htonl(hostOrderAddress);
  m_AddressSet = true;
  return true;
}

bool CUdpTxSocket::Bind(const std::string& address, uint16_t networkOrderPort) {
  return Bind(ntohl(inet_addr(address.c_str())), networkOrderPort);
}

bool CUdpTxSocket::Bind(in_addr_t hostOrderAddress, uint16_t networkOrderPort) {
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = networkOrderPort;
  own.sin_addr.s_addr = htonl(hostOrderAddress);
  return _RememberError(bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) ==
                        0);
}

bool CUdpTxSocket::TxPacket(std::span<const uint8_t> bytes) {
  VOLDRAKE_ASSERT(m_AddressSet == true);
  return _RememberError(RetryInterrupted([&] {
                          return sendto(m_Socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL,
                                        reinterpret_cast<const sockaddr*>(&m_Destination),
                                        sizeof m_Destination);
                        }) >= 0);
}
