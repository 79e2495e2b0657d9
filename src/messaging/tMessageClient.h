#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "frame/tThread.h"

struct DataSourceInfo;

/// Delivers data-source messages to the display application, which listens on 127.0.0.1.
///
/// A thread with a queue of message texts: each text goes over a connection of its own, at most one
/// every 500 ms. While the application is away texts wait, oldest first, and delivery is tried
/// again about every ten seconds and whenever a new text comes. A text whose sending fails midway
/// is lost; the next one is not.
///
/// Threads: everybody may publish and clear; the owner starts and stops the thread. The queue's
/// lock is never held across network operations; the thread's own mutex may be taken while it is
/// held.
class tMessageClient : public tThread {
 public:
  explicit tMessageClient(int32_t port) : m_Port(port) {}

  /// Builds the record's message (a memory card's key is corrected in the record), logs and queues
  /// it, and has it sent at once. A message over 8,190 bytes is refused with an error line. Does
  /// not block.
  void PublishDataSource(DataSourceInfo& info) EXCLUDES(m_QueueLock);

  /// Discards every text that is not being sent yet.
  void ClearPending() EXCLUDES(m_QueueLock);

  /// The number of texts that wait.
  [[nodiscard]] size_t PendingCount() EXCLUDES(m_QueueLock);

  /// Stops the thread and then sends what still waits, without pause, for as long as the
  /// application takes it. Blocks for at most two seconds in all.
  void StopAfterDelivery() EXCLUDES(m_QueueLock);

 protected:
  void run() override EXCLUDES(m_QueueLock);

  /// Tries to send the oldest text. True when all of it was sent. Blocks for at most `timeout`.
  bool _DeliverOne(std::chrono::milliseconds timeout) EXCLUDES(m_QueueLock);

 private:
  /// Counts a tick. True when it is one that tries to deliver.
  bool _AttemptIsDue() EXCLUDES(m_QueueLock);

  /// Moves the oldest text out. False when there is none.
  bool _TakeOldest(std::string& text) EXCLUDES(m_QueueLock);

  const int32_t m_Port;

  tMutex m_QueueLock;
  /// Ticks since the last attempt that sent nothing; 0: the next tick makes one.
  int32_t m_RetryTicks GUARDED_BY(m_QueueLock) = 0;
  std::deque<std::string> m_Queue GUARDED_BY(m_QueueLock);
};
