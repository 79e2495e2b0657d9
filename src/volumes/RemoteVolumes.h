#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "storage/NfsMounter.h"

class CServiceList;
class CServicePublisher;
class tMessageClient;
struct NFS_DATA_T;

/// The shares of other units: mounts each that is found, reports it to the display application, and
/// undoes that when it goes. Keeps no record of them: the service list is the only one.
///
/// Threads: `Add` and `Remove` run on the browser's and the service list's threads, with the list's
/// lock held, `Add` while republishing on the main thread too, under the same lock; `PeerFound`
/// runs on the browser's thread, `Republish` on the main thread. The shares' texts are untrusted.
class tRemoteVolumes {
 public:
  /// While this many reports wait for an absent application, further shares wait for their next
  /// announcement instead: a network that makes up shares must not fill the memory.
  static constexpr size_t kMaxPendingReports = 4096;

  /// `messages` and `publisher` are not owned and outlive this object.
  tRemoteVolumes(tMessageClient& messages, CServicePublisher& publisher,
                 CNfsMounter mounter = CNfsMounter())
      : m_Messages(messages), m_Publisher(publisher), m_Mounter(std::move(mounter)) {}

  /// Mounts and reports a share. False, with nothing reported, when it cannot be mounted or too
  /// many reports wait. Blocks for as long as the mount takes.
  [[nodiscard]] bool Add(const NFS_DATA_T& share);

  /// Unmounts a share and reports its removal, also when unmounting fails. Blocks likewise.
  void Remove(const NFS_DATA_T& share);

  /// Hands the peer's address (dotted) to the publisher.
  void PeerFound(const std::string& address) const;

  /// Has the list add each of its shares once more, however many reports wait: they were taken.
  /// Blocks for as long as it takes to mount them anew. Requires: the list reports to this object.
  void Republish(CServiceList& shares);

 private:
  /// True while no share is taken since too many reports wait; one line says when that begins.
  [[nodiscard]] bool _TooManyReportsWait();

  // Constant after construction; what they refer to is synchronised by itself.
  tMessageClient& m_Messages;
  CServicePublisher& m_Publisher;
  CNfsMounter m_Mounter;

  std::atomic<bool> m_Republishing = false;

  // Guarded by the service list's lock, which its callers hold.
  bool m_SharesRefused = false;
};
