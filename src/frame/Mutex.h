#pragma once

#include <pthread.h>

#include <ctime>

#include "frame/ThreadAnnotations.h"

/// A POSIX mutex with default attributes.
class CAPABILITY("mutex") tMutex {
 public:
  tMutex() { pthread_mutex_init(&m_Mutex, nullptr); }
  ~tMutex() { pthread_mutex_destroy(&m_Mutex); }
  tMutex(const tMutex&) = delete;
  tMutex& operator=(const tMutex&) = delete;

  void Lock() ACQUIRE() { pthread_mutex_lock(&m_Mutex); }
  void Unlock() RELEASE() { pthread_mutex_unlock(&m_Mutex); }

 private:
  friend class tCondition;
  pthread_mutex_t m_Mutex;
};

/// Holds a mutex for the life of a block.
class SCOPED_CAPABILITY tMutexLock {
 public:
  explicit tMutexLock(tMutex& mutex) ACQUIRE(mutex) : m_Held(mutex) { m_Held.Lock(); }
  ~tMutexLock() RELEASE() { m_Held.Unlock(); }
  tMutexLock(const tMutexLock&) = delete;
  tMutexLock& operator=(const tMutexLock&) = delete;

 private:
  tMutex& m_Held;
};

/// A POSIX condition variable whose deadlines are on CLOCK_MONOTONIC, so that setting the unit's
/// clock neither stretches nor cuts a wait.
class tCondition {
 public:
  tCondition();
  ~tCondition();
  tCondition(const tCondition&) = delete;
  tCondition& operator=(const tCondition&) = delete;

  void Signal();

  /// Waits for a signal, releasing the mutex meanwhile. False once the deadline has passed; true on
  /// a signal, and spuriously at any time.
  bool WaitUntil(tMutex& mutex, const timespec& deadline) REQUIRES(mutex);

 private:
  pthread_condattr_t m_Attributes;
  pthread_cond_t m_Condition;
};
