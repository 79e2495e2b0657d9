#pragma once

#include <pthread.h>

#include <chrono>
#include <ctime>

#include "frame/Mutex.h"

/// `time` plus `delay`, with the nanoseconds kept below one second.
[[nodiscard]] timespec Later(const timespec& time, std::chrono::milliseconds delay);

/// Base of every worker: one POSIX thread whose body, `run`, loops over short passes and sleeps
/// between them with `WaitForWake`, which other threads can cut short.
///
/// Life: created, `Start`, running, `Stop` (joined), perhaps `Start` again. The destructor neither
/// stops nor joins: the owner calls `Stop` first, while the subclass is still whole.
/// Threads: `Start`, `Stop` and `Join` belong to the owner; `Wake` may be called by any thread.
class tThread {
 public:
  tThread() = default;
  virtual ~tThread() = default;
  tThread(const tThread&) = delete;
  tThread& operator=(const tThread&) = delete;

  /// Starts the thread. Does nothing while it runs. When the system has no room for a thread that
  /// is logged as an error, and the object is as if it had not been started.
  void Start();

  /// Asks the thread to end, ends its sleep and waits until `run` has returned. Does nothing when
  /// it does not run. Must not be called on the thread itself.
  void Stop();

  /// The first half of `Stop`: asks the thread to end and ends its sleep, without waiting for it.
  void RequestStop();

  /// Ends the current or, if there is none, the next `WaitForWake` at once.
  void Wake();

  /// Waits until `run` has returned, without asking it to. Requires: started, not joined yet.
  void Join();

 protected:
  /// The thread's body. Returns soon after `StopRequested` turns true.
  virtual void run() {}

  /// Sleeps until `Wake`, `Stop` or the time-out, whichever comes first. A wake-up that came while
  /// the thread was busy ends it at once. Called on the thread itself.
  void WaitForWake(std::chrono::milliseconds timeout);

  /// True from `Stop` on.
  [[nodiscard]] bool StopRequested();

 private:
  static void* _Body(void* self);

  // The owner's.
  pthread_t m_Thread{};
  bool m_Running = false;

  tMutex m_Mutex;
  tCondition m_Condition;
  bool m_StopRequested GUARDED_BY(m_Mutex) = false;
  bool m_Woken GUARDED_BY(m_Mutex) = false;
};
