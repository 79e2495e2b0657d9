#pragma once

#include <map>
#include <string>

#include "frame/tThread.h"
#include "sharing/NfsData.h"

class IServiceBrowserCallback;

/// The shares of other units that are announced at present, by source (SENDER:PATH). Each lives for
/// three seconds from its last announcement; its end is reported once, also when the list stops.
///
/// Threads: every operation may be called by any thread. The mutex guards the map and is held while
/// the callback runs.
class CServiceList : public tThread {
 public:
  /// More shares than this at one time are a flood, not a fleet; further ones are refused.
  static constexpr size_t kMaxServices = 16384;

  /// Requires: callback not null. It is not owned and outlives this object.
  explicit CServiceList(IServiceBrowserCallback* pCallback);
  ~CServiceList() override;

  /// Takes note of an announcement: renews the life of a known share, and nothing else of it;
  /// offers a new one to the callback. True when a new one was taken.
  bool Add(const NFS_DATA_T& service) EXCLUDES(m_Mutex);

  /// Ends a share that was withdrawn. False when there is no such share.
  bool Remove(const std::string& path) EXCLUDES(m_Mutex);

  /// Offers every share to the callback once more, in order. A refusal changes nothing: the share's
  /// time-out decides.
  void Republish() EXCLUDES(m_Mutex);

 protected:
  void run() override EXCLUDES(m_Mutex);
  void _CountDown() EXCLUDES(m_Mutex);

  /// Called on the list's thread after each tick, every 100 ms, without the mutex.
  virtual void _Ticked() {}

 private:
  void _RemoveAll() EXCLUDES(m_Mutex);

  IServiceBrowserCallback* const m_pCallback;
  tMutex m_Mutex;
  std::map<std::string, NFS_DATA_T> m_Services GUARDED_BY(m_Mutex);
  bool m_FullReported GUARDED_BY(m_Mutex) = false;
};
