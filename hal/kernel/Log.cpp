#include "hal/kernel/Log.h"

#include <cstdio>
#include <string>

#include "program/Printable.h"

namespace halkernel {
namespace {

constexpr std::size_t kMaxBytes = 1000;

// Set before there is a second thread.
bool gOnStandardError = false;

}  // namespace

void OpenLog(bool debug) {
  gOnStandardError = debug;
  openlog("voldrake-hald", LOG_PID, LOG_DAEMON);
  setlogmask(LOG_UPTO(debug ? LOG_DEBUG : LOG_INFO));
}

void Log(int priority, std::string_view text) {
  const std::string line = program::Printable(text.substr(0, kMaxBytes));
  syslog(priority, "%s", line.c_str());
  if (gOnStandardError) std::fprintf(stderr, "voldrake-hald: %s\n", line.c_str());
}

}  // namespace halkernel
