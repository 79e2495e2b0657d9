#pragma once

#include <chrono>

/// What the program under test takes for the time, in the hands of a test. The test program has
/// clock_gettime and pthread_cond_timedwait of its own for that, in front of the C library's.

/// Moves the program's CLOCK_MONOTONIC forward for good, as if nothing had run meanwhile. Whoever
/// waits already is not woken. The durations that the test program prints include it.
void LetTimePass(std::chrono::nanoseconds duration);

/// While it lives, a timed wait for a condition is ended by a signal or by the test: its time-out
/// does not come by itself, however late the test is. For one thread that waits, made before that
/// starts.
class tWaitsInHand {
 public:
  tWaitsInHand();
  ~tWaitsInHand();
  tWaitsInHand(const tWaitsInHand&) = delete;
  tWaitsInHand& operator=(const tWaitsInHand&) = delete;

  /// Returns once a thread waits. False when none did until the tests' deadline.
  [[nodiscard]] bool AwaitWait();

  /// Lets the time-out of the present or next wait come, and returns once the thread waits anew:
  /// what it does between two waits is done. False as for `AwaitWait`.
  [[nodiscard]] bool TimeOut();
};
