#pragma once

#include <sys/fsuid.h>
#include <unistd.h>

/// While it lives, file access of this thread is judged as an ordinary user's, so that a test for
/// an unreadable file also means something when root runs it.
class tOrdinaryUser {
 public:
  tOrdinaryUser() {
    if (geteuid() == 0) setfsuid(kNobody);
  }
  ~tOrdinaryUser() { setfsuid(geteuid()); }
  tOrdinaryUser(const tOrdinaryUser&) = delete;
  tOrdinaryUser& operator=(const tOrdinaryUser&) = delete;

  /// False where the change is not possible: root of a user namespace that maps nobody else.
  [[nodiscard]] static bool IsPossible() {
    if (geteuid() != 0) return true;
    const tOrdinaryUser user;
    return setfsuid(static_cast<uid_t>(-1)) == static_cast<int>(kNobody);
  }

 private:
  static constexpr uid_t kNobody = 65534;
};
