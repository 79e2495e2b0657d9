#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "glib/Handles.h"
#include "tools/monitor/Connection.h"

namespace tools {

/// Listens on 127.0.0.1 as the display application would and hands on every frame. Lives on the
/// default main context. Bounded: while as many connections are open as are allowed (64; one
/// more may just have been accepted), further ones wait in the kernel.
class MessageServer {
 public:
  explicit MessageServer(Connection::FrameHandler onFrame);
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;
  ~MessageServer();

  /// Starts listening; port 0 takes a free one. False, with `error` set, when the port cannot be
  /// had.
  [[nodiscard]] bool Listen(std::uint16_t port, std::string& error);

  /// The port that it listens on. Requires: `Listen` succeeded.
  [[nodiscard]] std::uint16_t Port() const { return port_; }

 private:
  static gboolean OnIncoming(GSocketService*, GSocketConnection* connection, GObject*,
                             gpointer self);

  void Accept(GSocketConnection* connection);
  void Remove(Connection* connection);

  Connection::FrameHandler onFrame_;
  glib::ObjectPointer<GSocketService> service_;
  std::uint16_t port_ = 0;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace tools
