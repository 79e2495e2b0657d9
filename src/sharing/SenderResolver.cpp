#include "sharing/SenderResolver.h"

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "frame/Log.h"
#include "sharing/DottedAddress.h"
#include "sharing/SharingNames.h"

namespace {

using std::chrono::steady_clock;

constexpr int kTries = 4;
constexpr std::chrono::milliseconds kPause{250};

/// Port 9 as stored without conversion to network order, which is 2304 on the wire of a
/// little-endian unit; what listens there does not matter.
constexpr uint16_t kNudgePortAsStored = 9;

}  // namespace

std::optional<tHardwareAddress> tSenderResolver::Resolve(int socket, const sockaddr_in& sender) {
  if (m_CatchingUp) {
    const std::optional<tHardwareAddress> address = _Look(socket, sender);
    if (!address) {
      ++m_DroppedCatchingUp;
      _Nudge(socket, sender);
    }
    return address;
  }
  for (int attempt = 1; attempt <= kTries; ++attempt) {
    if (const std::optional<tHardwareAddress> address = _Look(socket, sender)) return address;
    if (attempt == kTries) {
      Log("attempt " + std::to_string(attempt) + " to obtain MAC for " + Dotted(sender.sin_addr) +
              " failed with error " + std::to_string(m_LastError),
          kLogError);
    }
    _Nudge(socket, sender);
    std::this_thread::sleep_for(kPause);
  }
  m_CatchingUp = true;
  return std::nullopt;
}

void tSenderResolver::EndCatchingUp() {
  m_CatchingUp = false;
  if (m_DroppedCatchingUp > 0) {
    // The line names the read that has dropped them.
    Log("CUdpRxSocket::FilteredRead: dropped " + std::to_string(m_DroppedCatchingUp) +
            " datagrams of senders without known hardware address",
        kLogWarning);
  }
  m_DroppedCatchingUp = 0;
}

std::optional<tHardwareAddress> tSenderResolver::_Look(int socket, const sockaddr_in& sender) {
  tHardwareAddress address{};
  const int error = _Query(socket, sender, address);
  if (error == 0) return address;
  m_LastError = error;
  return std::nullopt;
}

int tSenderResolver::_Query(int socket, const sockaddr_in& sender, tHardwareAddress& address) {
  arpreq request{};
  memcpy(&request.arp_pa, &sender, sizeof sender);
  std::string_view(kShareInterface).copy(request.arp_dev, sizeof request.arp_dev - 1);
  if (ioctl(socket, SIOCGARP, &request) != 0) return errno;
  // While the kernel is still asking around, its entry holds six zero bytes.
  if ((request.arp_flags & ATF_COM) == 0) return ENXIO;
  memcpy(address.data(), request.arp_ha.sa_data, address.size());
  return 0;
}

void tSenderResolver::_Nudge(int socket, const sockaddr_in& sender) {
  // Senders can be made up, and each would take a place in the kernel's table of neighbours.
  if (steady_clock::now() < m_NextNudge) return;
  sockaddr_in destination = sender;
  destination.sin_port = kNudgePortAsStored;
  _SendNudge(socket, destination);
  m_NextNudge = steady_clock::now() + kPause;
}

void tSenderResolver::_SendNudge(int socket, const sockaddr_in& destination) {
  const uint8_t zero = 0;
  sendto(socket, &zero, sizeof zero, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&destination),
         sizeof destination);
}
