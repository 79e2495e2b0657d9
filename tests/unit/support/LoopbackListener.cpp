#include "support/LoopbackListener.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <fstream>

#include "support/Deadline.h"

namespace {

constexpr int kDeadlineMs =
    static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline).count());

sockaddr_in LoopbackAddress(int32_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

tLoopbackListener::tLoopbackListener() : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = LoopbackAddress(0);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(m_Socket.Get(), generic, length), 0);
  EXPECT_EQ(getsockname(m_Socket.Get(), generic, &length), 0);
  m_Port = ntohs(address.sin_port);
}

void tLoopbackListener::Listen(int backlog) {
  EXPECT_EQ(listen(m_Socket.Get(), backlog), 0);
}

tFileDescriptor tLoopbackListener::Accept() {
  if (!_Readable(m_Socket.Get(), kDeadlineMs)) {
    ADD_FAILURE() << "no connection came";
    return tFileDescriptor();
  }
  return tFileDescriptor(accept4(m_Socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
}

bool tLoopbackListener::HasConnection() {
  return _Readable(m_Socket.Get(), 0);
}

void tLoopbackListener::ListenWithFullQueue() {
  constexpr int kMoreThanFit = 8;
  Listen(0);
  const sockaddr_in address = LoopbackAddress(m_Port);
  for (int i = 0; i < kMoreThanFit; ++i) {
    m_Waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    static_cast<void>(connect(m_Waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address),
                              sizeof address));
  }
  EXPECT_GT(UnansweredConnections(), 0);
}

void tLoopbackListener::EmptyQueue() {
  m_Waiting.clear();
  while (HasConnection()) static_cast<void>(Accept());
}

int tLoopbackListener::UnansweredConnections() const {
  // proc(5): "sl local_address rem_address st ...", the addresses as hexadecimal IP:PORT.
  constexpr unsigned kSynSent = 2;
  std::ifstream table("/proc/self/net/tcp");
  int count = 0;
  for (std::string line; std::getline(table, line);) {
    unsigned remotePort = 0;
    unsigned state = 0;
    if (sscanf(line.c_str(), "%*d: %*x:%*x %*x:%x %x", &remotePort, &state) == 2 &&
        static_cast<int32_t>(remotePort) == m_Port && state == kSynSent) {
      ++count;
    }
  }
  return count;
}

std::string tLoopbackListener::ReceiveAll() {
  const tFileDescriptor connection = Accept();
  std::string received;
  char block[4096];
  while (connection.IsOpen()) {
    if (!_Readable(connection.Get(), kDeadlineMs)) {
      ADD_FAILURE() << "the connection was not closed";
      break;
    }
    const ssize_t count = read(connection.Get(), block, sizeof block);
    if (count <= 0) break;
    received.append(block, static_cast<size_t>(count));
  }
  return received;
}

bool tLoopbackListener::_Readable(int descriptor, int timeoutMs) {
  pollfd readable{descriptor, POLLIN, 0};
  return poll(&readable, 1, timeoutMs) > 0;
}
