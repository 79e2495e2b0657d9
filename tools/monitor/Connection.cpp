#include "tools/monitor/Connection.h"

#include <array>
#include <string_view>
#include <utility>

namespace tools {

namespace {

/// How long one frame may take. The daemon gives up sending after 2 s.
constexpr guint kFrameTimeoutMs = 5000;

}  // namespace

Connection::Connection(GSocketConnection* connection, FrameHandler onFrame, EndHandler onEnd)
    : connection_(static_cast<GSocketConnection*>(g_object_ref(connection))),
      onFrame_(std::move(onFrame)),
      onEnd_(std::move(onEnd)) {
  GSocket* socket = g_socket_connection_get_socket(connection);
  g_socket_set_blocking(socket, FALSE);
  GSource* source = g_socket_create_source(socket, G_IO_IN, nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(OnReadable), this, nullptr);
  readable_ = glib::EventSource(source);
  StartTimer();
}

Connection::~Connection() {
  g_io_stream_close(G_IO_STREAM(connection_.get()), nullptr, nullptr);
}

gboolean Connection::OnReadable(GSocket*, GIOCondition, gpointer self) {
  static_cast<Connection*>(self)->Read();
  return G_SOURCE_CONTINUE;
}

gboolean Connection::OnTimeout(gpointer self) {
  static_cast<Connection*>(self)->End("no whole frame came in time");
  return G_SOURCE_CONTINUE;
}

void Connection::Read() {
  std::array<char, kMaxFrameBytes> bytes;
  glib::ErrorHolder error;
  const gssize count = g_socket_receive(g_socket_connection_get_socket(connection_.get()),
                                        bytes.data(), reader_.Room(), nullptr, error.Out());
  if (count < 0) {
    if (!error.WouldBlock()) End("the connection failed");
    return;
  }
  if (count == 0) return End("the peer closed the connection");

  reader_.Append(std::string_view(bytes.data(), static_cast<std::size_t>(count)));
  while (auto frame = reader_.Next()) {
    deliveredFrame_ = true;
    StartTimer();
    onFrame_(std::move(*frame));
  }
  if (reader_.Room() == 0) End("no frame can follow");
}

void Connection::StartTimer() {
  GSource* source = g_timeout_source_new(kFrameTimeoutMs);
  g_source_set_callback(source, OnTimeout, this, nullptr);
  timer_ = glib::EventSource(source);
}

void Connection::End(const char* reason) {
  auto rest = reader_.Rest();
  if (!rest && !deliveredFrame_) rest = DecodeFrame({});
  if (rest) {
    rest->fault += std::string("; ") + reason;
    onFrame_(std::move(*rest));
  }
  onEnd_(this);
}

}  // namespace tools
