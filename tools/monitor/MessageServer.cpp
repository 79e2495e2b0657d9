#include "tools/monitor/MessageServer.h"

#include <utility>

namespace tools {

namespace {

constexpr std::size_t kMaxConnections = 64;
constexpr int kBacklog = 64;

}  // namespace

MessageServer::MessageServer(Connection::FrameHandler onFrame)
    : onFrame_(std::move(onFrame)), service_(g_socket_service_new()) {
  g_socket_listener_set_backlog(G_SOCKET_LISTENER(service_.get()), kBacklog);
  g_signal_connect(service_.get(), "incoming", G_CALLBACK(OnIncoming), this);
}

MessageServer::~MessageServer() {
  g_signal_handlers_disconnect_by_data(service_.get(), this);
  g_socket_service_stop(service_.get());
  g_socket_listener_close(G_SOCKET_LISTENER(service_.get()));
}

bool MessageServer::Listen(std::uint16_t port, std::string& error) {
  const glib::ObjectPointer<GSocketAddress> wanted(
      g_inet_socket_address_new_from_string("127.0.0.1", port));
  GSocketAddress* bound = nullptr;
  glib::ErrorHolder failure;
  if (!g_socket_listener_add_address(G_SOCKET_LISTENER(service_.get()), wanted.get(),
                                     G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr, &bound,
                                     failure.Out())) {
    error = "cannot listen on 127.0.0.1:" + std::to_string(port) + ": " + failure.Text();
    return false;
  }
  const glib::ObjectPointer<GSocketAddress> effective(bound);
  port_ = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(effective.get()));
  g_socket_service_start(service_.get());
  return true;
}

gboolean MessageServer::OnIncoming(GSocketService*, GSocketConnection* connection, GObject*,
                                   gpointer self) {
  static_cast<MessageServer*>(self)->Accept(connection);
  return TRUE;
}

void MessageServer::Accept(GSocketConnection* connection) {
  connections_.push_back(std::make_unique<Connection>(
      connection, onFrame_, [this](Connection* ended) { Remove(ended); }));
  if (connections_.size() >= kMaxConnections) g_socket_service_stop(service_.get());
}

void MessageServer::Remove(Connection* connection) {
  std::erase_if(connections_, [&](const auto& held) { return held.get() == connection; });
  if (connections_.size() < kMaxConnections) g_socket_service_start(service_.get());
}

}  // namespace tools
