#include "frame/tThread.h"

#include <cstring>

#include "frame/Log.h"

timespec Later(const timespec& time, std::chrono::milliseconds delay) {
  constexpr long kNanosecondsPerSecond = 1'000'000'000;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(delay);
  const long nanoseconds =
      time.tv_nsec + static_cast<long>(std::chrono::nanoseconds(delay - seconds).count());
  timespec later{};
  later.tv_sec = time.tv_sec + static_cast<time_t>(seconds.count()) +
                 static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
  later.tv_nsec = nanoseconds % kNanosecondsPerSecond;
  return later;
}

void tThread::Start() {
  if (m_Running) return;
  {
    const tMutexLock lock(m_Mutex);
    m_StopRequested = false;
  }
  const int error = pthread_create(&m_Thread, nullptr, _Body, this);
  if (error != 0) {
    Log(std::string("tThread::Start: creating a thread failed: ") + strerror(error), kLogError);
  }
  m_Running = error == 0;
}

void tThread::Stop() {
  if (!m_Running) return;
  m_Running = false;
  RequestStop();
  Join();
}

void tThread::RequestStop() {
  const tMutexLock lock(m_Mutex);
  m_StopRequested = true;
  m_Woken = true;
  m_Condition.Signal();
}

void tThread::Wake() {
  const tMutexLock lock(m_Mutex);
  m_Woken = true;
  m_Condition.Signal();
}

void tThread::Join() {
  pthread_join(m_Thread, nullptr);
}

void tThread::WaitForWake(std::chrono::milliseconds timeout) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const timespec deadline = Later(now, timeout);
  const tMutexLock lock(m_Mutex);
  while (!m_Woken && m_Condition.WaitUntil(m_Mutex, deadline)) {
  }
  m_Woken = false;
}

bool tThread::StopRequested() {
  const tMutexLock lock(m_Mutex);
  return m_StopRequested;
}

void* tThread::_Body(void* self) {
  static_cast<tThread*>(self)->run();
  return nullptr;
}
