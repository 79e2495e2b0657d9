#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "glib/Handles.h"
#include "tools/monitor/Connection.h"

namespace tools {

/// Listens on 127.0.0.1 as the display application would and passes on every frame. Runs on the
/// default main context. Bounded: while 64 connections are open (one more may just have been
/// accepted), further ones wait in the kernel.
class MessageServer {
 public:
  explicit MessageServer(Connection::FrameHandler onFrame);
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;
  ~MessageServer();

  /// Starts listening; port 0 picks a free one. Returns false and sets `error` if the port is not
  /// available.
  [[nodiscard]] bool Listen(std::uint16_t port, std::string& error);

  /// The port on which it listens. Requires: `Listen` succeeded.
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
