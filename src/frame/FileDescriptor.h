#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

/// Owns one descriptor and closes it; closing keeps errno. Movable, not copyable.
class tFileDescriptor {
 public:
  explicit tFileDescriptor(int descriptor = -1) : m_Descriptor(descriptor) {}
  ~tFileDescriptor() { Reset(); }
  tFileDescriptor(tFileDescriptor&& other) noexcept : m_Descriptor(other.Release()) {}
  tFileDescriptor& operator=(tFileDescriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }

  [[nodiscard]] bool IsOpen() const { return m_Descriptor >= 0; }
  [[nodiscard]] int Get() const { return m_Descriptor; }

  /// Gives the descriptor away without closing it.
  int Release() { return std::exchange(m_Descriptor, -1); }

  /// Closes what it holds and takes the new one.
  void Reset(int descriptor = -1) {
    const int savedErrno = errno;
    if (m_Descriptor >= 0) close(m_Descriptor);
    errno = savedErrno;
    m_Descriptor = descriptor;
  }

 private:
  int m_Descriptor;
};
