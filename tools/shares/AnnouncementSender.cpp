#include "tools/shares/AnnouncementSender.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tools/shares/Announcement.h"

namespace tools {

namespace {

/// How many routers a unit lets its announcements pass.
constexpr guint kTimeToLive = 5;

bool SendThrough(GSocket* socket, const char* interface, std::string& error) {
  ip_mreqn request{};
  request.imr_ifindex = static_cast<int>(if_nametoindex(interface));
  if (request.imr_ifindex == 0) {
    error = std::string("there is no interface ") + interface;
    return false;
  }
  if (setsockopt(g_socket_get_fd(socket), IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request) !=
      0) {
    error = std::string("cannot send through ") + interface + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

bool AnnouncementSender::Open(const std::string& destination, const char* interface,
                              std::string& error) {
  destination_.reset(g_inet_socket_address_new_from_string(destination.c_str(), kAnnouncementPort));
  if (destination_ == nullptr ||
      g_socket_address_get_family(destination_.get()) != G_SOCKET_FAMILY_IPV4) {
    error = destination + " is not a valid IPv4 address";
    return false;
  }
  glib::ErrorHolder failure;
  socket_.reset(g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP,
                             failure.Out()));
  if (socket_ == nullptr) {
    error = failure.Text();
    return false;
  }
  g_socket_set_multicast_ttl(socket_.get(), kTimeToLive);
  return interface == nullptr || SendThrough(socket_.get(), interface, error);
}

bool AnnouncementSender::Send(const std::string& datagram, std::string& error) {
  glib::ErrorHolder failure;
  if (g_socket_send_to(socket_.get(), destination_.get(), datagram.data(), datagram.size(), nullptr,
                       failure.Out()) >= 0) {
    return true;
  }
  error = std::string("cannot send: ") + failure.Text();
  return false;
}

}  // namespace tools
