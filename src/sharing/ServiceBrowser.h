#pragma once

#include <array>
#include <memory>
#include <string>

#include "frame/tThread.h"
#include "sharing/LinkLocalAddress.h"
#include "sharing/NfsServiceMessage.h"
#include "sharing/ServiceList.h"

class CUdpRxSocket;
class IServiceBrowserCallback;

/// Listens to the announcements of other units, keeps them in the service list and tells the
/// receiver when the peer unit, recognised by its hardware address, is heard. Joins the group again
/// when the interface has changed.
///
/// Threads: the owner starts and stops; `run` is the only user of the socket but for the shutdown
/// that ends its blocked read. The read has no time-out, so the list's thread, which ticks anyway,
/// looks at the interface. Announcements are handled on the browser's thread, which a slow
/// mount holds up. Everything that comes from the network is untrusted.
class CServiceBrowser : public tThread {
 public:
  /// Starts the list's thread, not the browser's own. `peerMac` is a colon-separated hardware
  /// address, or empty. Requires: callback not null. It is not owned and outlives this object.
  CServiceBrowser(IServiceBrowserCallback* pCallback, std::string peerMac);

  /// Stops the list, which reports every share removed. Requires: the browser was stopped.
  ~CServiceBrowser() override;

  /// Ends the browser's thread, also when it waits for a datagram, and waits for it. The list lives
  /// on.
  void StopBrowsing() EXCLUDES(m_SocketLock);

  /// The list of shares; lives as long as the browser.
  [[nodiscard]] CServiceList& ServiceList() { return m_ServiceList; }

 protected:
  void run() override EXCLUDES(m_SocketLock);

 private:
  class tWatchingList : public CServiceList {
   public:
    tWatchingList(CServiceBrowser& browser, IServiceBrowserCallback* pCallback)
        : CServiceList(pCallback), m_Browser(browser) {}

   protected:
    /// Has the browser look at its interface once a second.
    void _Ticked() override;

   private:
    CServiceBrowser& m_Browser;
    int m_TicksSinceLook = 0;
  };

  /// Has the group joined again, on a new socket, when the interface is another than the one that
  /// it was joined on (a driver loaded anew makes a new interface of the old name, on which nobody
  /// has joined) or has another link-local address; logs that. Does not block.
  void _CheckInterface() EXCLUDES(m_SocketLock);

  /// False when stopped meanwhile.
  [[nodiscard]] bool _WaitForNetwork();
  /// False once the socket was shut down in favour of a new one.
  [[nodiscard]] bool _IsListening() EXCLUDES(m_SocketLock);
  /// A socket that has joined the group; null when stopped meanwhile.
  [[nodiscard]] std::unique_ptr<CUdpRxSocket> _OpenSocket();
  void _ReceiveOne(CUdpRxSocket& socket);
  void _HandleAnnouncement(const std::string& sender, bool isPeer);

  IServiceBrowserCallback* const m_pCallback;
  const std::string m_PeerMac;
  tWatchingList m_ServiceList;

  // The browser's thread only.
  std::array<uint8_t, CNfsServiceMessage::kMaxBytes> m_Buffer{};
  CNfsServiceMessage m_Message;

  tMutex m_SocketLock;
  CUdpRxSocket* m_pListening GUARDED_BY(m_SocketLock) = nullptr;  ///< while `run` reads from it
  tShareInterface m_JoinedOn GUARDED_BY(m_SocketLock);            ///< forgotten once it has gone
};
