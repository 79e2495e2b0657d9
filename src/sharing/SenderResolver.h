#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

using tHardwareAddress = std::array<uint8_t, 6>;

/// Finds the hardware address of a datagram's sender in the kernel's table of neighbours.
///
/// An address that is not there is asked for up to four times, 250 ms apart, and each time the
/// sender gets a datagram that makes the kernel resolve it. While one sender is waited for, what
/// others send queues up. Once a sender could not be resolved, the resolver therefore catches up:
/// every further sender gets one look and no wait, so that senders nobody can resolve do not hold
/// up those who can be, until its owner finds the queue empty.
///
/// Used by one thread. Senders are untrusted: they may be made up.
class tSenderResolver {
 public:
  virtual ~tSenderResolver() = default;

  /// Asks by means of an open datagram socket. Empty when the address stays unknown, which is
  /// logged after four tries and counted while catching up. Blocks for at most one second.
  [[nodiscard]] std::optional<tHardwareAddress> Resolve(int socket, const sockaddr_in& sender);

  /// True from the first sender that could not be resolved to `EndCatchingUp`.
  [[nodiscard]] bool IsCatchingUp() const { return m_CatchingUp; }

  /// To be called when nothing is queued any more. Logs how many datagrams were dropped, if any.
  void EndCatchingUp();

  /// The error number of the last look that found nothing.
  [[nodiscard]] int LastError() const { return m_LastError; }

 protected:
  // The two things that are asked of the kernel; a test answers in its place.

  /// Looks into the table of neighbours. 0 when the address is there, the error number otherwise.
  [[nodiscard]] virtual int _Query(int socket, const sockaddr_in& sender,
                                   tHardwareAddress& address);

  /// Sends the datagram that makes the kernel resolve its destination. One that cannot be sent
  /// shows as an address that stays unknown.
  virtual void _SendNudge(int socket, const sockaddr_in& destination);

 private:
  [[nodiscard]] std::optional<tHardwareAddress> _Look(int socket, const sockaddr_in& sender);
  /// Has the kernel resolve the sender, unless another was nudged within the last 250 ms.
  void _Nudge(int socket, const sockaddr_in& sender);

  bool m_CatchingUp = false;
  unsigned m_DroppedCatchingUp = 0;
  int m_LastError = 0;
  std::chrono::steady_clock::time_point m_NextNudge;
};
