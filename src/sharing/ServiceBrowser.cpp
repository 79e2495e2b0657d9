#include "sharing/ServiceBrowser.h"

#include "frame/Assert.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "sharing/IServiceBrowserCallback.h"
#include "sharing/SharingNames.h"
#include "sharing/UdpRxSocket.h"

namespace {

constexpr std::chrono::milliseconds kRetryPause{100};
constexpr std::chrono::milliseconds kReadFailurePause{1000};
constexpr int kTicksBetweenLooks = 10;

}  // namespace

CServiceBrowser::CServiceBrowser(IServiceBrowserCallback* pCallback, std::string peerMac)
    : m_pCallback(pCallback),
      m_PeerMac(std::move(peerMac)),
      m_ServiceList(*this, (VOLDRAKE_ASSERT(m_pCallback != 0), m_pCallback)) {
  m_ServiceList.Start();
}

CServiceBrowser::~CServiceBrowser() {
  m_ServiceList.Stop();
}

void CServiceBrowser::StopBrowsing() {
  RequestStop();
  {
    const tMutexLock lock(m_SocketLock);
    if (m_pListening != nullptr) m_pListening->Shutdown();
  }
  Stop();
}

void CServiceBrowser::tWatchingList::_Ticked() {
  if (++m_TicksSinceLook < kTicksBetweenLooks) return;
  m_TicksSinceLook = 0;
  m_Browser._CheckInterface();
}

void CServiceBrowser::_CheckInterface() {
  const tShareInterface present = GetShareInterface();
  const tMutexLock lock(m_SocketLock);
  if (m_pListening == nullptr) return;
  // One that comes back has lost the group, whichever number it then has.
  if (present.index == 0) m_JoinedOn = {};
  if (present.index == 0 || present.address == 0 || present == m_JoinedOn) return;
  Log(std::string("CServiceBrowser: ") + kShareInterface +
          " is another interface or has another address, joining " + kAnnouncementGroup + " again",
      kLogInfo);
  m_pListening->Shutdown();
  m_pListening = nullptr;
  Wake();
}

void CServiceBrowser::run() {
  while (_WaitForNetwork()) {
    // Looked at before the group is joined, so that a change meanwhile is one.
    const tShareInterface present = GetShareInterface();
    const std::unique_ptr<CUdpRxSocket> socket = _OpenSocket();
    if (!socket) return;
    socket->SetPeerMac(m_PeerMac);
    {
      const tMutexLock lock(m_SocketLock);
      m_JoinedOn = present;
      m_pListening = socket.get();
    }
    // A stop that came before the socket could be shut down is seen here, a later one ends the
    // read.
    while (!StopRequested() && _IsListening()) _ReceiveOne(*socket);
    const tMutexLock lock(m_SocketLock);
    m_pListening = nullptr;
  }
}

bool CServiceBrowser::_IsListening() {
  const tMutexLock lock(m_SocketLock);
  return m_pListening != nullptr;
}

bool CServiceBrowser::_WaitForNetwork() {
  in_addr_t address = 0;
  while (!StopRequested()) {
    if (GetLinkLocalAddress(address)) return true;
    WaitForWake(kRetryPause);
  }
  return false;
}

std::unique_ptr<CUdpRxSocket> CServiceBrowser::_OpenSocket() {
  auto socket = std::make_unique<CUdpRxSocket>();
  while (!StopRequested()) {
    if (socket->CreateSocket(kAnnouncementPort)) {
      if (socket->_AddMultiCast(kAnnouncementGroup)) return socket;
      socket->Close();
    }
    WaitForWake(kRetryPause);
  }
  return nullptr;
}

void CServiceBrowser::_ReceiveOne(CUdpRxSocket& socket) {
  size_t length = 0;
  std::string sender;
  bool isPeer = false;
  switch (socket.FilteredRead(m_Buffer, &length, &sender, isPeer)) {
    case tReadResult::kReceived:
      break;
    case tReadResult::kUnresolved:
      return;
    case tReadResult::kFailed:
      // A socket that keeps failing must neither spin nor fill the log.
      WaitForWake(kReadFailurePause);
      return;
  }
  if (isPeer) m_pCallback->OnPeerFound(sender);
  if (m_Message.Decode({m_Buffer.data(), length})) _HandleAnnouncement(sender, isPeer);
}

void CServiceBrowser::_HandleAnnouncement(const std::string& sender, bool isPeer) {
  NFS_DATA_T& service = *m_Message.GetNfsServiceDataPtr();
  service.path.insert(0, ":").insert(0, sender);
  service.fromPeer = isPeer;
  const uint16_t messageType = m_Message.GetMessageType();
#ifdef VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS
  if (messageType != kServiceAnnounced && messageType != kServiceWithdrawn) {
    Log("CServiceBrowser: announcement of unknown type " + std::to_string(messageType) + " from " +
            sender + " ignored",
        kLogWarning);
    return;
  }
#endif
  VOLDRAKE_ASSERT(messageType == kServiceAnnounced || messageType == kServiceWithdrawn);
  if (messageType == kServiceAnnounced) {
    m_ServiceList.Add(service);
  } else {
    m_ServiceList.Remove(service.path);
  }
}
