#pragma once

#include <syslog.h>

#include <string_view>

// The service's log: syslog and, on request, standard error.

namespace halkernel {

/// To be called before the first line. With `debug`, lines of LOG_DEBUG are logged too, and every
/// line also goes to standard error.
void OpenLog(bool debug);

/// Logs one line of this priority (LOG_INFO, ...). The text may be anything: what could control a
/// terminal or begin another line is escaped, and more than 1,000 bytes are truncated. Any thread.
void Log(int priority, std::string_view text);

}  // namespace halkernel
