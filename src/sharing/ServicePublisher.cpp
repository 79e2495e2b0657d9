#include "sharing/ServicePublisher.h"

#include <arpa/inet.h>
#include <sys/wait.h>

#include <thread>
#include <utility>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"
#include "sharing/DottedAddress.h"
#include "sharing/LinkLocalAddress.h"
#include "sharing/NfsServiceMessage.h"
#include "sharing/SharingNames.h"
#include "sharing/UdpTxSocket.h"

namespace {

constexpr std::chrono::milliseconds kPass{1000};
constexpr int kFlushPass = 3;
constexpr const char* kEverybody = "*";

bool CommandFailed(int waitStatus) {
  return (waitStatus & 0xFF00) != 0;
}

/// True also when there was no process for the shell: the C library then makes up the status that a
/// shell gives which does not find the command.
bool WasNotRun(int waitStatus) {
  constexpr int kNotFound = 127;
  return waitStatus == -1 || (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == kNotFound);
}

}  // namespace

CServicePublisher::CServicePublisher(tExportTable& exports, tCommandRunner run)
    : m_Exports(exports), m_Run(std::move(run)) {}

CServicePublisher::~CServicePublisher() = default;

bool CServicePublisher::AddServiceNFS(const std::string& path, MEDIA_TYPE_T mediaType,
                                      const std::string& key, const std::string& contentId,
                                      const std::string& serialNumber,
                                      const std::string& friendlyName, bool readOnly) {
  const NFS_DATA_T service{.path = path,
                           .mediaType = mediaType,
                           .key = key,
                           .friendlyName = friendlyName,
                           .readOnly = readOnly,
                           .contentId = contentId,
                           .serialNumber = serialNumber};
  if (!CNfsServiceMessage::Fits(service)) {
    Log("AddServiceNFS: does not fit into an announcement: " + Printable(path), kLogError);
    return false;
  }
  {
    const tMutexLock lock(m_Exports.mutex);
    const auto [entry, added] = m_Exports.services.insert(service);
    _ExportService(*entry);
    if (m_NetworkReady) Wake();
  }
  Log("AddServiceNFS: " + Printable(path), kLogDebug);
  return true;
}

void CServicePublisher::RemoveServiceNFS(const std::string& path) {
  const tMutexLock lock(m_Exports.mutex);
  const auto service = m_Exports.services.find(path);
  if (service == m_Exports.services.end()) return;
  if (m_NetworkReady) {
    CNfsServiceMessage message;
    message.Set(kServiceWithdrawn, *service);
    _Send(message.Datagram());
  }
  if (m_PeerAddress != 0) _Unexport(Dotted({m_PeerAddress}), path);
  _Unexport(kEverybody, path);
  m_Exports.services.erase(service);
  Log("RemoveServiceNFS: " + Printable(path), kLogDebug);
}

void CServicePublisher::SetPeerIpAddress(const std::string& address) {
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
    Log("Invalid ip address: " + Printable(address), kLogError);
    return;
  }
  // Asked with every datagram of the peer, so exports that take their time must not hold it up.
  if (parsed.s_addr == m_PeerAddress) return;
  Log("CServicePublisher::SetPeerIpAddress Discovered peer IP address: " + address, kLogInfo);
  const tMutexLock lock(m_Exports.mutex);
  if (m_Publishing) {
    // A peer that changes its address gets even the read-only volumes writable, unlike one that was
    // known when they were added.
    for (const NFS_DATA_T& service : m_Exports.services) {
      if (m_PeerAddress != 0) _Unexport(Dotted({m_PeerAddress}), service.path);
      _Export("rw", address, service.path);
    }
  }
  m_PeerAddress = parsed.s_addr;
}

void CServicePublisher::RestartNfsServer() {
  const tMutexLock lock(m_Exports.mutex);
  if (CommandFailed(m_Run("exportfs -a -r"))) {
    Log("CServicePublisher::RestartNfsServer: error clearing exports", kLogError);
  }
  for (const NFS_DATA_T& service : m_Exports.services) _ExportService(service);
  if (m_NetworkReady) Wake();
  Log("CServicePublisher: Restarting nfsd done", kLogDebug);
}

void CServicePublisher::StartPublishing() {
  m_Publishing = true;
  Wake();
}

void CServicePublisher::StopAndWait() {
  time_t measured = GetFileModifiedTime(kNfsRemoteMountTable);
  _WithdrawAll();
  Stop();
  for (int measurement = 0; measurement < 5; ++measurement) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const time_t now = GetFileModifiedTime(kNfsRemoteMountTable);
    if (now == measured) {
      std::this_thread::sleep_for(std::chrono::seconds(2));
      return;
    }
    measured = now;
  }
}

void CServicePublisher::run() {
  CNfsServiceMessage message;
  while (!StopRequested()) {
    {
      const tMutexLock lock(m_Exports.mutex);
      if (m_NetworkReady) {
        if (m_Publishing) _AnnounceAll(message);
        if (m_Exports.services.empty() && m_PeerAddress != 0) _ShowPeerOurAddress();
      }
      if (m_PeerAddress != 0) _FlushOnThirdPassWithPeer();
    }
    if (_IsNetWorkReConfigured()) {
      Log("CServicePublisher: Network Config Changed", kLogInfo);
      RestartNfsServer();
    }
    WaitForWake(kPass);
  }
}

void CServicePublisher::_AnnounceAll(CNfsServiceMessage& message) {
  for (const NFS_DATA_T& service : m_Exports.services) {
    if (LogsAt(kLogDebug)) Log("CServicePublisher::run: " + Printable(service.path), kLogDebug);
    message.Set(kServiceAnnounced, service);
    _Send(message.Datagram());
  }
}

void CServicePublisher::_ShowPeerOurAddress() {
  // The peer learns this unit's address from any datagram, and there is no announcement to send.
  m_pTxSocket->SetAddress(ntohl(m_PeerAddress), kAnnouncementPort);
  _Send({});
  m_pTxSocket->SetAddress(kAnnouncementGroup, kAnnouncementPort);
}

void CServicePublisher::_FlushOnThirdPassWithPeer() {
  if (m_PassesWithPeer >= kFlushPass) return;
  if (++m_PassesWithPeer == kFlushPass) _ExportFlush();
}

void CServicePublisher::_WithdrawAll() {
  const tMutexLock lock(m_Exports.mutex);
  if (m_Publishing && m_NetworkReady) {
    CNfsServiceMessage message;
    for (const NFS_DATA_T& service : m_Exports.services) {
      message.Set(kServiceWithdrawn, service);
      _Send(message.Datagram());
    }
  }
  m_Publishing = false;
}

bool CServicePublisher::_IsNetWorkReConfigured() {
  in_addr_t address = 0;
  const bool hasAddress = _ReadAddress(address);
  const tMutexLock lock(m_Exports.mutex);
  if (!hasAddress) return std::exchange(m_NetworkReady, false);
  if (address == m_LastAddress && m_NetworkReady) return false;
  m_LastAddress = address;
  m_NetworkReady = _OpenTransmitSocket(address);
  return m_NetworkReady;
}

bool CServicePublisher::_OpenTransmitSocket(in_addr_t address) {
  m_pTxSocket = std::make_unique<CUdpTxSocket>();
  if (!m_pTxSocket->Create(kAnnouncementTimeToLive)) return false;
  m_pTxSocket->SetAddress(kAnnouncementGroup, kAnnouncementPort);
  if (!m_pTxSocket->Bind(ntohl(address), 0)) return false;
  Log("CServicePublisher::_IsNetWorkReConfigured " + Dotted({address}), kLogDebug);
  return true;
}

bool CServicePublisher::_ReadAddress(in_addr_t& address) {
  return GetLinkLocalAddress(address);
}

void CServicePublisher::_Send(std::span<const uint8_t> datagram) {
  m_pTxSocket->TxPacket(datagram);
}

void CServicePublisher::_ExportService(const NFS_DATA_T& service) {
  if (!m_NetworkReady) return;
  if (m_PeerAddress != 0 && !service.readOnly) {
    _Export("rw", Dotted({m_PeerAddress}), service.path);
  }
  _Export("ro", kEverybody, service.path);
}

void CServicePublisher::_Export(const std::string& options, const std::string& client,
                                const std::string& path) {
  const int status = m_Run("exportfs -o " + options + ",no_root_squash,no_subtree_check " +
                           ShellExportTarget(client, path));
  const std::string target = Printable(client + ":" + path);
  if (CommandFailed(status)) {
    Log("_Export: error exporting " + target, kLogError);
  } else {
    Log("_Export: exporting '" + target + "' PASS", kLogInfo);
  }
}

void CServicePublisher::_Unexport(const std::string& client, const std::string& path) {
  const int status = m_Run("exportfs -u " + ShellExportTarget(client, path));
  // The command's own exit status proves nothing: what was added without a network is not exported.
  if (m_NetworkReady && WasNotRun(status)) {
    Log("_Unexport: exportfs cannot be run, still exported: " + Printable(client + ":" + path),
        kLogError);
  }
}

void CServicePublisher::_ExportFlush() {
  if (CommandFailed(m_Run("exportfs -f"))) {
    Log("_ExportFlush: 'exportfs -f' FAILED", kLogError);
  } else {
    Log("_ExportFlush: 'exportfs -f' PASS", kLogInfo);
  }
}
