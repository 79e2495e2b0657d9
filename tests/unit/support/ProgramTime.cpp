#include "support/ProgramTime.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>

#include "support/Deadline.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

std::atomic<int64_t> gPassed = 0;  ///< nanoseconds that the program's clock is ahead

std::atomic<bool> gInHand = false;
/// The mutex of the wait, and how many waits have begun; guarded by that mutex.
std::atomic<pthread_mutex_t*> gMutex = nullptr;
std::atomic<pthread_cond_t*> gCondition = nullptr;
std::atomic<int> gWaits = 0;
std::atomic<int64_t> gAsked = 0;  ///< nanoseconds that the last wait was to last
bool gWaiting = false;
bool gTimeOut = false;

int64_t Nanoseconds(const timespec& time) {
  return time.tv_sec * kNanosecondsPerSecond + static_cast<int64_t>(time.tv_nsec);
}

timespec Moved(const timespec& time, int64_t nanoseconds) {
  const int64_t sum = Nanoseconds(time) + nanoseconds;
  timespec moved{};
  moved.tv_sec = static_cast<time_t>(sum / kNanosecondsPerSecond);
  moved.tv_nsec = static_cast<long>(sum % kNanosecondsPerSecond);
  return moved;
}

// With 64-bit times on a 32-bit machine the C library's functions have names of their own.
#ifdef __USE_TIME_BITS64
constexpr const char* kClockGettime = "__clock_gettime64";
constexpr const char* kTimedWait = "__pthread_cond_timedwait64";
#else
constexpr const char* kClockGettime = "clock_gettime";
constexpr const char* kTimedWait = "pthread_cond_timedwait";
#endif

template <typename tFunction>
tFunction* Next(const char* name) {
  return reinterpret_cast<tFunction*>(dlsym(RTLD_NEXT, name));
}

int WaitInHand(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec& deadline) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  gAsked = Nanoseconds(deadline) - Nanoseconds(now);
  gCondition = condition;
  gMutex = mutex;
  gWaiting = true;
  ++gWaits;
  const int error = pthread_cond_wait(condition, mutex);
  gWaiting = false;
  return std::exchange(gTimeOut, false) ? ETIMEDOUT : error;
}

/// True when a thread waits, whose time-out comes then if `timeOut` says so.
bool SeeWait(bool timeOut) {
  pthread_mutex_t* const mutex = gMutex;
  if (mutex == nullptr) return false;
  pthread_mutex_lock(mutex);
  const bool waiting = gWaiting && !gTimeOut;
  if (waiting && timeOut) {
    gTimeOut = true;
    pthread_cond_signal(gCondition);
  }
  pthread_mutex_unlock(mutex);
  return waiting;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static auto* const next = Next<int(clockid_t, timespec*)>(kClockGettime);
  const int result = next(clock, time);
  if (result == 0 && clock == CLOCK_MONOTONIC) *time = Moved(*time, gPassed);
  return result;
}

#ifdef __USE_TIME_BITS64
// The C++ runtime was built with 32-bit times; its monotonic clock asks for them.
struct tTimespec32 {
  int32_t seconds;
  int32_t nanoseconds;
};
extern "C" int ClockGettime32(clockid_t clock, tTimespec32* time) __asm__("clock_gettime");
extern "C" int ClockGettime32(clockid_t clock, tTimespec32* time) {
  timespec now{};
  const int result = clock_gettime(clock, &now);
  *time = {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec)};
  return result;
}
#endif

extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const timespec* deadline) {
  static auto* const next =
      Next<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(kTimedWait);
  if (gInHand) return WaitInHand(condition, mutex, *deadline);
  const timespec real = Moved(*deadline, -gPassed);
  return next(condition, mutex, &real);
}

void LetTimePass(std::chrono::nanoseconds duration) {
  gPassed += duration.count();
}

tWaitsInHand::tWaitsInHand() {
  gInHand = true;
}

tWaitsInHand::~tWaitsInHand() {
  gInHand = false;
  gMutex = nullptr;
}

bool tWaitsInHand::AwaitWait() {
  return Eventually([] { return SeeWait(false); });
}

bool tWaitsInHand::TimeOut() {
  int before = 0;
  return Eventually([&] {
           before = gWaits;
           return SeeWait(true);
         }) &&
         Eventually([&] { return gWaits > before; });
}

std::chrono::nanoseconds tWaitsInHand::Asked() const {
  return std::chrono::nanoseconds(gAsked);
}
