#pragma once

/// Guards against programming errors. A false condition writes one line to standard error, which a
/// daemon in the background does not have, and to the log,
///
///     voldrake: tHalManager:70: void tHalManager::InstallCallback(...): Assertion `pCallback != 0'
///     failed.
///
/// and aborts the process. Unlike assert() it stays on in every build type, since nobody is there
/// to notice a unit that limps on in a state that cannot be.
#define VOLDRAKE_ASSERT(condition) \
  (static_cast<bool>(condition)    \
       ? void(0)                   \
       : AssertionFailed(#condition, __FILE__, __LINE__, __PRETTY_FUNCTION__))

/// Writes the line and aborts. `file` is shortened to the source's name without folder and ending.
[[noreturn]] void AssertionFailed(const char* condition, const char* file, int line,
                                  const char* function);
