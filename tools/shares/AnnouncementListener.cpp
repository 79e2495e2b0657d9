#include "tools/shares/AnnouncementListener.h"

#include <net/if.h>
#include <netinet/in.h>

#include <array>
#include <cstdio>
#include <utility>

#include "tools/shares/Announcement.h"

namespace tools {

namespace {

/// How many datagrams are taken at once, so that a flood cannot keep timers and signals waiting.
constexpr int kMaxDatagramsAtOnce = 64;

/// More than any UDP datagram has.
constexpr std::size_t kBufferBytes = 65536;

std::string SenderText(GSocketAddress* address) {
  if (!G_IS_INET_SOCKET_ADDRESS(address)) return "unknown";
  const glib::CharPointer text(
      g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address))));
  return text.get();
}

}  // namespace

AnnouncementListener::AnnouncementListener(DatagramHandler onDatagram)
    : onDatagram_(std::move(onDatagram)) {}

bool AnnouncementListener::Join(const char* interface, std::string& error) {
  // The library would take an unknown name for any interface.
  if (interface != nullptr && if_nametoindex(interface) == 0) {
    error = std::string("there is no interface ") + interface;
    return false;
  }
  glib::ErrorHolder failure;
  socket_.reset(g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP,
                             failure.Out()));
  const glib::ObjectPointer<GSocketAddress> local(
      g_inet_socket_address_new_from_string(kAnnouncementGroup, kAnnouncementPort));
  GInetAddress* group = g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(local.get()));
  // Without IP_MULTICAST_ALL the socket hears only the interface on which it joined itself.
  if (socket_ == nullptr || !g_socket_bind(socket_.get(), local.get(), TRUE, failure.Out()) ||
      !g_socket_set_option(socket_.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0, failure.Out()) ||
      !g_socket_join_multicast_group(socket_.get(), group, FALSE, interface, failure.Out())) {
    error = std::string("cannot join ") + kAnnouncementGroup + " port " +
            std::to_string(kAnnouncementPort) + ": " + failure.Text();
    if (interface == nullptr) error += " (is there a route to it? Otherwise name an interface)";
    return false;
  }
  g_socket_set_blocking(socket_.get(), FALSE);
  GSource* source = g_socket_create_source(socket_.get(), G_IO_IN, nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(OnReadable), this, nullptr);
  readable_ = glib::EventSource(source);
  return true;
}

gboolean AnnouncementListener::OnReadable(GSocket*, GIOCondition, gpointer self) {
  auto* listener = static_cast<AnnouncementListener*>(self);
  for (int count = 0; count < kMaxDatagramsAtOnce && listener->ReceiveOne(); ++count) {
  }
  return G_SOURCE_CONTINUE;
}

bool AnnouncementListener::ReceiveOne() {
  static std::array<char, kBufferBytes> buffer;
  GSocketAddress* address = nullptr;
  glib::ErrorHolder error;
  const gssize count = g_socket_receive_from(socket_.get(), &address, buffer.data(), buffer.size(),
                                             nullptr, error.Out());
  const glib::ObjectPointer<GSocketAddress> sender(address);
  if (count < 0) {
    if (!error.WouldBlock()) {
      std::fprintf(stderr, "%s: cannot receive: %s\n", g_get_prgname(), error.Text());
    }
    return false;
  }
  onDatagram_(SenderText(sender.get()), {buffer.data(), static_cast<std::size_t>(count)});
  return true;
}

}  // namespace tools
