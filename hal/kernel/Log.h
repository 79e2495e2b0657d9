#pragma once

#include <syslog.h>

#include <string_view>

// The service's log: syslog, and standard error where that is wanted.

namespace halkernel {

/// Before the first line. With `debug` lines of LOG_DEBUG are kept, and every line also goes to
/// standard error.
void OpenLog(bool debug);

/// One line of this priority (LOG_INFO, ...), whatever the text holds: what could drive a terminal
/// or begin another line is escaped, and a text of more than 1,000 bytes is cut. Any thread.
void Log(int priority, std::string_view text);

}  // namespace halkernel
