#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <span>

#include "frame/FileDescriptor.h"

/// A TCP connection to 127.0.0.1 that never holds its caller up for longer than it was given when
/// it was opened: connecting and all sending share that time. Used by one thread; closed at the end
/// of its life. Nothing is logged; failures are the results.
class tLocalStream {
 public:
  explicit tLocalStream(std::chrono::milliseconds timeout)
      : m_Deadline(std::chrono::steady_clock::now() + timeout) {}

  /// Connects to the port. False when there is no listener or the time is up.
  [[nodiscard]] bool Connect(int32_t port);

  /// Sends all bytes. False when the other side is gone or the time is up; part of the bytes may
  /// have been sent then. Raises no signal.
  [[nodiscard]] bool Send(std::span<const uint8_t> bytes);

 private:
  bool _WaitWritable();

  /// True when the system chose the very port that was asked for as this end's own, which connects
  /// a socket to itself where nobody listens; such a connection is closed. `port` in network order.
  bool _IsConnectedToItself(in_port_t port);

  std::chrono::steady_clock::time_point m_Deadline;
  tFileDescriptor m_Socket;
};
