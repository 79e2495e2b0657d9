#pragma once

#include <cerrno>

/// Repeats a system call for as long as a signal interrupts it; gives its result, errno as it left
/// it.
template <typename tCall>
auto RetryInterrupted(tCall call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}
