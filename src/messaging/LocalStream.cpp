#include "messaging/LocalStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "frame/SystemCall.h"

bool tLocalStream::Connect(int32_t port) {
  m_Socket.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!m_Socket.IsOpen()) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  if (connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    // An interrupted connect goes on by itself and is waited for like one in progress.
    if ((errno != EINPROGRESS && errno != EINTR) || !_WaitWritable()) return false;
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(m_Socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
      return false;
    }
  }
  return !_IsConnectedToItself(address.sin_port);
}

bool tLocalStream::Send(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = RetryInterrupted(
        [&] { return send(m_Socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
    if (sent >= 0) {
      bytes = bytes.subspan(static_cast<size_t>(sent));
    } else if ((errno != EAGAIN && errno != EWOULDBLOCK) || !_WaitWritable()) {
      return false;
    }
  }
  return true;
}

bool tLocalStream::_IsConnectedToItself(in_port_t port) {
  sockaddr_in own{};
  socklen_t length = sizeof own;
  if (getsockname(m_Socket.Get(), reinterpret_cast<sockaddr*>(&own), &length) != 0 ||
      own.sin_port != port) {
    return false;
  }
  // Closed without a trace, or the port would be kept from its listener for another minute.
  const linger atOnce{1, 0};
  setsockopt(m_Socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  m_Socket.Reset();
  return true;
}

bool tLocalStream::_WaitWritable() {
  using std::chrono::milliseconds;
  for (;;) {
    const auto left =
        std::chrono::ceil<milliseconds>(m_Deadline - std::chrono::steady_clock::now());
    pollfd writable{m_Socket.Get(), POLLOUT, 0};
    const int ready =
        poll(&writable, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}
