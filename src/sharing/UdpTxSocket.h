#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>
#include <string>

#include "frame/FileDescriptor.h"

/// Sends datagrams to one destination at a time, which may be a multicast group. Used by one thread
/// at a time; nothing blocks; the socket is closed at the end of its life. Failures are the
/// results, with the error number in `LastError`; nothing is logged.
class CUdpTxSocket {
 public:
  virtual ~CUdpTxSocket() = default;

  /// Makes the socket. The time-to-live is that of multicast datagrams.
  [[nodiscard]] bool Create(int multicastTimeToLive);

  // Sets the destination: a dotted address, or a number in host byte order; the port in host order.
  bool SetAddress(const std::string& address, uint16_t port);
  bool SetAddress(in_addr_t hostOrderAddress, uint16_t port);

  // Binds to an own address: a dotted one, or a number in host byte order. The port is already in
  // network byte order, or 0 for any.
  [[nodiscard]] bool Bind(const std::string& address, uint16_t networkOrderPort);
  [[nodiscard]] bool Bind(in_addr_t hostOrderAddress, uint16_t networkOrderPort);

  /// Sends one datagram, which may be empty. Requires: a destination was set.
  bool TxPacket(std::span<const uint8_t> bytes);

  [[nodiscard]] int LastError() const { return m_LastError; }

 private:
  [[nodiscard]] bool _RememberError(bool succeeded);

  bool m_AddressSet = false;
  sockaddr_in m_Destination{};
  int m_LastError = 0;
  tFileDescriptor m_Socket;
};
