#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/FileDescriptor.h"

/// A display application's side of the local TCP connection: a port of its own on 127.0.0.1. Every
/// wait ends at the tests' deadline with a failure of the test.
class tLoopbackListener {
 public:
  /// Takes a free port. Connections are refused until `Listen`.
  tLoopbackListener();

  [[nodiscard]] int32_t Port() const { return m_Port; }

  /// Takes connections from now on; up to `backlog` wait to be accepted.
  void Listen(int backlog = 16);

  /// The next connection; not open when none came until the deadline.
  [[nodiscard]] tFileDescriptor Accept();

  /// True when a connection waits to be accepted.
  [[nodiscard]] bool HasConnection();

  /// Fills the queue of connections that wait to be accepted, so that a further one gets no answer.
  /// Listens with the shortest queue for that.
  void ListenWithFullQueue();

  /// Empties the queue again, so that the next connection is answered.
  void EmptyQueue();

  /// The number of connections to this port that were begun and got no answer.
  [[nodiscard]] int UnansweredConnections() const;

  /// Accepts a connection and reads it to its end.
  [[nodiscard]] std::string ReceiveAll();

 private:
  bool _Readable(int descriptor, int timeoutMs);

  tFileDescriptor m_Socket;
  int32_t m_Port = 0;
  std::vector<tFileDescriptor> m_Waiting;
};
