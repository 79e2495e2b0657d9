#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "frame/FileDescriptor.h"
#include "sharing/SenderResolver.h"

/// What came of a filtered read.
enum class tReadResult {
  kReceived,
  kUnresolved,  ///< a datagram came, but its sender's hardware address stays unknown
  kFailed,      ///< the socket failed or was shut down
};

/// Receives datagrams on a port, also those of multicast groups, and reports who sent them: the
/// unit's own are dropped, and the sender's hardware address is compared with the peer's.
///
/// Threads: used by one thread; only `Shutdown` may be called by another. All received bytes are
/// untrusted. Failures are the results, with the error number in `LastError`.
class CUdpRxSocket {
 public:
  virtual ~CUdpRxSocket() { Close(); }

  /// Opens the socket and binds it to the port (host order) on every address. On failure, which is
  /// logged, nothing stays open.
  [[nodiscard]] bool CreateSocket(uint16_t port);

  // Joining and leaving a multicast group (a dotted address, or a number in network order) on
  // whatever interface the routes give. Failures are logged.
  [[nodiscard]] bool _AddMultiCast(const std::string& group);
  [[nodiscard]] bool _AddMultiCast(in_addr_t group);
  bool _DropMultiCast(const std::string& group);
  bool _DropMultiCast(in_addr_t group);
  /// Leaves the group that was joined last, if any. False in every case.
  bool _DropSavedMultiCast();

  /// Waits for one datagram. `lenRx` receives its length, cut to the buffer's size, and `sender`,
  /// unless null, its source. False on failure, which is logged, and, silently, once the socket was
  /// shut down. Requires: lenRx not null.
  [[nodiscard]] bool _BlockingRead(std::span<uint8_t> buffer, size_t* lenRx, sockaddr_in* sender);

  /// As `_BlockingRead`, with the sender's address in host order.
  [[nodiscard]] bool ReadFrom(std::span<uint8_t> buffer, size_t* lenRx, in_addr_t* hostOrderSender);

  /// As `_BlockingRead`, but passes over the unit's own datagrams. `sender`, unless null, receives
  /// the dotted address; `isPeer` whether the sender's hardware address is the peer's. A datagram
  /// whose sender's address the resolver does not find counts as not received.
  [[nodiscard]] tReadResult FilteredRead(std::span<uint8_t> buffer, size_t* lenRx,
                                         std::string* sender, bool& isPeer);

  /// Sets the peer's hardware address from its colon-separated form; an empty text means that
  /// nobody is the peer. False, logged, with the address as it was, when the text is none.
  bool SetPeerMac(const std::string& mac);

  /// Ends a blocked read and every later one. Any thread.
  void Shutdown();

  /// Leaves the group, ends reading and closes. Does nothing on a socket that is not open.
  void Close();

  [[nodiscard]] int LastError() const { return m_LastError; }

 private:
  bool _Fail(const char* operation);
  bool _IsOwnAddress(in_addr_t address);
  /// One recvmsg. Gives the datagram's length, -1 on failure. Once the socket was shut down the
  /// sender has no address family.
  [[nodiscard]] ssize_t _Receive(std::span<uint8_t> buffer, int flags, sockaddr_in& sender);
  /// The next datagram; while the resolver catches up, of those that are queued first.
  [[nodiscard]] bool _ReadNext(std::span<uint8_t> buffer, size_t* lenRx, sockaddr_in& sender);

  tFileDescriptor m_Socket;
  ip_mreq m_SavedMembership{};
  bool m_Joined = false;
  int m_LastError = 0;
  uint16_t m_Port = 65535;
  tHardwareAddress m_PeerMac{};
  tSenderResolver m_Resolver;
  std::vector<in_addr_t> m_OwnAddresses;  ///< kept between reads for its memory only
};
