#pragma once

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>

#include "frame/Shell.h"
#include "frame/tThread.h"
#include "sharing/ExportTable.h"

class CNfsServiceMessage;
class CUdpTxSocket;

/// Shares the unit's volumes: exports each over NFS with the system's exportfs, read-only to
/// everybody and writable to the one peer unit, and announces it once a second by multicast;
/// withdraws both when the volume goes.
///
/// The network is ready while the interface has its link-local address and a transmit socket stands
/// for it; without that nothing is exported or announced, and what is added meanwhile is exported
/// as soon as an address comes. A new address redoes all exports.
///
/// Threads: every operation may be called by any thread but `StartPublishing` and `StopAndWait`,
/// which belong to the owner. The export table's mutex guards what changes together; the export
/// commands run while it is held, so an operation that needs it may block for as long as they take.
class CServicePublisher : public tThread {
 public:
  /// `exports` is not owned and outlives this object.
  explicit CServicePublisher(tExportTable& exports, tCommandRunner run = RunCommand);
  ~CServicePublisher() override;

  /// Shares a volume; an entry that its path already has is kept. False, with an error line, when
  /// its texts do not fit into one announcement. The content id and serial number stay on this
  /// unit.
  bool AddServiceNFS(const std::string& path, MEDIA_TYPE_T mediaType, const std::string& key,
                     const std::string& contentId, const std::string& serialNumber,
                     const std::string& friendlyName, bool readOnly) EXCLUDES(m_Exports.mutex);

  /// Withdraws a volume. Does nothing for a path that is not shared.
  void RemoveServiceNFS(const std::string& path) EXCLUDES(m_Exports.mutex);

  /// Moves the peer's writable exports to its address (dotted). An invalid address is logged and
  /// ignored; the known one costs nothing and waits for nobody.
  void SetPeerIpAddress(const std::string& address) EXCLUDES(m_Exports.mutex);

  /// Clears all exports and makes them again.
  void RestartNfsServer() EXCLUDES(m_Exports.mutex);

  /// Begins to announce. Does not block, whatever the exports take.
  void StartPublishing();

  /// Withdraws every volume, stops the thread, and gives the NFS clients time to let go: at least
  /// three seconds, at most about seven, for as long as the table of remote mounts keeps changing.
  void StopAndWait() EXCLUDES(m_Exports.mutex);

 protected:
  void run() override EXCLUDES(m_Exports.mutex);
  void _AnnounceAll(CNfsServiceMessage& message) REQUIRES(m_Exports.mutex);

  /// True when the link-local address came, went or changed since the last look.
  bool _IsNetWorkReConfigured() EXCLUDES(m_Exports.mutex);

  // The network as the publisher sees it; a test has one of its own.

  /// Reads the link-local address, in network order. False when there is none.
  [[nodiscard]] virtual bool _ReadAddress(in_addr_t& address);
  /// Sends one datagram, which may be empty, to the transmit socket's destination.
  virtual void _Send(std::span<const uint8_t> datagram) REQUIRES(m_Exports.mutex);

 private:
  void _ShowPeerOurAddress() REQUIRES(m_Exports.mutex);
  void _FlushOnThirdPassWithPeer() REQUIRES(m_Exports.mutex);
  void _WithdrawAll() EXCLUDES(m_Exports.mutex);
  bool _OpenTransmitSocket(in_addr_t address) REQUIRES(m_Exports.mutex);

  /// Exports one volume to those who may have it, if the network is ready.
  void _ExportService(const NFS_DATA_T& service) REQUIRES(m_Exports.mutex);
  void _Export(const std::string& options, const std::string& client, const std::string& path);
  void _Unexport(const std::string& client, const std::string& path) REQUIRES(m_Exports.mutex);
  void _ExportFlush();

  tExportTable& m_Exports;
  const tCommandRunner m_Run;
  std::unique_ptr<CUdpTxSocket> m_pTxSocket GUARDED_BY(m_Exports.mutex);
  bool m_NetworkReady GUARDED_BY(m_Exports.mutex) = false;
  in_addr_t m_LastAddress GUARDED_BY(m_Exports.mutex) = 0;
  int m_PassesWithPeer GUARDED_BY(m_Exports.mutex) = 0;  ///< counted up to three

  // Looked at without the mutex too. But for `StartPublishing` they are changed with it only.
  std::atomic<bool> m_Publishing = false;
  std::atomic<in_addr_t> m_PeerAddress = 0;  ///< in network order; 0 while unknown
};
