#pragma once

#include <chrono>
#include <thread>

/// How long a test waits for an event that must come. Never the measure of a result: generous
/// enough for a sanitizer build on a loaded machine.
inline constexpr std::chrono::seconds kDeadline{30};

/// Looks until `condition` holds. False when the deadline passes first.
template <typename tCondition>
[[nodiscard]] bool Eventually(tCondition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
