#include "frame/tThread.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <limits>
#include <thread>

#include "support/CapturedLog.h"
#include "support/Deadline.h"

using std::chrono::hours;
using std::chrono::milliseconds;
using tClock = std::chrono::steady_clock;

namespace {

/// A worker whose body the test writes.
class tWorker : public tThread {
 public:
  using tThread::StopRequested;
  using tThread::WaitForWake;

  explicit tWorker(std::function<void(tWorker&)> body) : m_Body(std::move(body)) {}

  std::atomic<int> runs = 0;   ///< times that the body was entered
  std::atomic<int> waits = 0;  ///< times that `CountedWait` came back

  void CountedWait(milliseconds timeout) {
    WaitForWake(timeout);
    ++waits;
  }

 protected:
  void run() override {
    ++runs;
    m_Body(*this);
  }

 private:
  const std::function<void(tWorker&)> m_Body;
};

void WaitUntilStopped(tWorker& self) {
  while (!self.StopRequested()) self.CountedWait(hours(1));
}

void ReturnAtOnce(tWorker&) {}

TEST(Later, CarriesNanosecondsIntoSeconds) {
  const struct {
    timespec time;
    milliseconds delay;
    timespec later;
  } cases[] = {
      {{0, 0}, milliseconds(0), {0, 0}},
      {{7, 999'999'999}, milliseconds(0), {7, 999'999'999}},
      {{0, 900'000'000}, milliseconds(1500), {2, 400'000'000}},
      {{5, 0}, milliseconds(999), {5, 999'000'000}},
      {{5, 1'000'000}, milliseconds(999), {6, 0}},
      {{5, 999'999}, milliseconds(999), {5, 999'999'999}},
      {{5, 999'999'999}, milliseconds(1), {6, 999'999}},
      {{5, 999'999'999}, milliseconds(999), {6, 998'999'999}},
      {{5, 500'000'000}, milliseconds(500), {6, 0}},
      {{5, 250'000'000}, milliseconds(3000), {8, 250'000'000}},
      {{100, 1}, milliseconds(86'400'000), {86'500, 1}},
  };
  for (const auto& [time, delay, later] : cases) {
    const timespec result = Later(time, delay);
    EXPECT_EQ(result.tv_sec, later.tv_sec) << time.tv_nsec << " + " << delay.count() << " ms";
    EXPECT_EQ(result.tv_nsec, later.tv_nsec) << time.tv_nsec << " + " << delay.count() << " ms";
  }
}

TEST(Thread, RunsItsBodyOnAThreadOfItsOwn) {
  std::thread::id body;
  tWorker worker([&](tWorker&) { body = std::this_thread::get_id(); });
  worker.Start();
  worker.Join();
  EXPECT_NE(body, std::thread::id());
  EXPECT_NE(body, std::this_thread::get_id());
}

TEST(Thread, DoesNotRunBeforeItIsStarted) {
  tWorker worker(ReturnAtOnce);
  EXPECT_EQ(worker.runs, 0);
  EXPECT_FALSE(worker.StopRequested());
}

TEST(Thread, StartedTwiceRunsOnce) {
  tWorker worker(WaitUntilStopped);
  worker.Start();
  worker.Start();
  worker.Stop();
  EXPECT_EQ(worker.runs, 1);
}

TEST(Thread, ThatWasNeverStartedMayBeStopped) {
  tWorker worker(ReturnAtOnce);
  worker.Stop();
  EXPECT_EQ(worker.runs, 0);
  EXPECT_FALSE(worker.StopRequested());
}

/// While it lives, stacks of new threads are larger than any address space.
class tNoRoomForThreads {
 public:
  tNoRoomForThreads() {
    pthread_getattr_default_np(&m_Before);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::numeric_limits<size_t>::max() / 2);
    pthread_setattr_default_np(&huge);
    pthread_attr_destroy(&huge);
  }
  ~tNoRoomForThreads() {
    pthread_setattr_default_np(&m_Before);
    pthread_attr_destroy(&m_Before);
  }
  tNoRoomForThreads(const tNoRoomForThreads&) = delete;
  tNoRoomForThreads& operator=(const tNoRoomForThreads&) = delete;

 private:
  pthread_attr_t m_Before;
};

TEST(Thread, ThatTheSystemHasNoRoomForIsLoggedAndMayBeStopped) {
  const tCapturedLog log;
  tWorker worker(WaitUntilStopped);
  {
    const tNoRoomForThreads full;
    worker.Start();
    worker.Wake();
    worker.Stop();
    worker.Start();
  }
  const tLogLine line{kLogError,
                      "tThread::Start: creating a thread failed: Resource temporarily unavailable"};
  EXPECT_THAT(log.Lines(), testing::ElementsAre(line, line));
  EXPECT_EQ(worker.runs, 0);
  worker.Start();
  EXPECT_TRUE(Eventually([&] { return worker.runs == 1; })) << "there is room again";
  worker.Stop();
}

TEST(Thread, MayBeStoppedTwice) {
  tWorker worker(WaitUntilStopped);
  worker.Start();
  worker.Stop();
  worker.Stop();
  EXPECT_EQ(worker.runs, 1);
}

TEST(Thread, WhoseBodyHasReturnedMayBeStopped) {
  tWorker worker(ReturnAtOnce);
  worker.Start();
  ASSERT_TRUE(Eventually([&] { return worker.runs == 1; }));
  worker.Stop();
}

TEST(Thread, StartsAfreshAfterAStop) {
  std::atomic<bool> stopSeenAtOnce = false;
  tWorker worker([&](tWorker& self) {
    if (self.StopRequested()) stopSeenAtOnce = true;
    WaitUntilStopped(self);
  });
  for (int round = 1; round <= 3; ++round) {
    worker.Start();
    ASSERT_TRUE(Eventually([&] { return worker.runs == round; }));
    worker.Stop();
    EXPECT_TRUE(worker.StopRequested());
  }
  EXPECT_FALSE(stopSeenAtOnce);
}

TEST(Thread, StopEndsALongSleepAndWaitsForTheBody) {
  std::atomic<bool> ended = false;
  tWorker worker([&](tWorker& self) {
    self.WaitForWake(hours(1));
    ended = self.StopRequested();
  });
  worker.Start();
  ASSERT_TRUE(Eventually([&] { return worker.runs == 1; }));
  worker.Stop();
  EXPECT_TRUE(ended);
}

TEST(Thread, JoinWaitsForTheBodyWithoutAskingItToEnd) {
  std::atomic<bool> mayEnd = false;
  bool stopAsked = true;
  tWorker worker([&](tWorker& self) {
    EXPECT_TRUE(Eventually([&] { return mayEnd.load(); }));
    stopAsked = self.StopRequested();
  });
  worker.Start();
  mayEnd = true;
  worker.Join();
  EXPECT_FALSE(stopAsked);
}

TEST(WaitForWake, WithoutAWakeUpLastsItsTimeout) {
  for (const milliseconds timeout : {milliseconds(0), milliseconds(30), milliseconds(1050)}) {
    tWorker worker(ReturnAtOnce);
    const auto start = tClock::now();
    worker.WaitForWake(timeout);
    EXPECT_GE(tClock::now() - start, timeout);
  }
}

TEST(WaitForWake, ReturnsAtOnceAfterAnEarlierWakeUpAndUsesItUp) {
  tWorker worker(ReturnAtOnce);
  worker.Wake();
  worker.Wake();
  const auto start = tClock::now();
  worker.WaitForWake(hours(1));
  EXPECT_LT(tClock::now() - start, kDeadline);
  const auto second = tClock::now();
  worker.WaitForWake(milliseconds(50));
  EXPECT_GE(tClock::now() - second, milliseconds(50)) << "two early wake-ups count as one";
}

TEST(WaitForWake, IsEndedByEachWakeUp) {
  tWorker worker(WaitUntilStopped);
  worker.Start();
  for (int wakes = 1; wakes <= 20; ++wakes) {
    worker.Wake();
    ASSERT_TRUE(Eventually([&] { return worker.waits == wakes; }));
  }
  worker.Stop();
  EXPECT_GE(worker.waits, 20);
  EXPECT_LE(worker.waits, 21) << "nothing but a wake-up may end a long sleep";
}

TEST(WaitForWake, MissesNoWakeUpHoweverTheyFall) {
  constexpr int kThreads = 4;
  constexpr int kWakesEach = 500;
  std::atomic<int> given = 0;
  std::atomic<int> seen = 0;
  tWorker worker([&](tWorker& self) {
    while (!self.StopRequested()) {
      self.WaitForWake(hours(1));
      seen = given.load();
    }
  });
  worker.Start();
  std::vector<std::thread> wakers;
  for (int thread = 0; thread < kThreads; ++thread) {
    wakers.emplace_back([&] {
      for (int wake = 0; wake < kWakesEach; ++wake) {
        ++given;
        worker.Wake();
      }
    });
  }
  for (std::thread& waker : wakers) waker.join();
  EXPECT_TRUE(Eventually([&] { return seen == kThreads * kWakesEach; }));
  worker.Stop();
}

TEST(Condition, WaitsNoLongerThanToItsDeadline) {
  tMutex mutex;
  tCondition condition;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const tMutexLock lock(mutex);
  while (condition.WaitUntil(mutex, Later(now, milliseconds(20)))) {
  }
  timespec after{};
  clock_gettime(CLOCK_MONOTONIC, &after);
  const timespec earliest = Later(now, milliseconds(20));
  EXPECT_TRUE(after.tv_sec > earliest.tv_sec ||
              (after.tv_sec == earliest.tv_sec && after.tv_nsec >= earliest.tv_nsec));
}

}  // namespace
