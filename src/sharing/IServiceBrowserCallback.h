#pragma once

#include <string>

struct NFS_DATA_T;

/// Receiver of what the service browser and its list learn of other units' shares. The records
/// belong to the list. `OnServiceAdded` and `OnServiceRemoved` are called with the list's lock held
/// and must not call back into it.
class IServiceBrowserCallback {
 public:
  virtual ~IServiceBrowserCallback() = default;

  /// A share was announced that is not in the list, or the list republishes. False refuses a new
  /// share: it is not kept and will be offered again with its next announcement.
  virtual bool OnServiceAdded(const NFS_DATA_T& share) = 0;

  /// A share was withdrawn or fell silent, or the list ends; called once for each that was added.
  virtual void OnServiceRemoved(const NFS_DATA_T& share) = 0;

  /// A datagram came from the peer unit; `address` is its dotted address. No lock is held.
  virtual void OnPeerFound(const std::string& address) = 0;
};
