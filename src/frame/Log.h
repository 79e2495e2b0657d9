#pragma once

#include <string>

// The one way to the log: syslog (ident "Voldrake", facility daemon), or a file when a path was
// set. Level and path are set once at start-up, before any other thread runs; after that every
// thread may log without a lock. A file is opened, written with one call and closed for each line,
// so a file that was rotated away or deleted is made again by the next line. A pipe that nobody
// reads, or that is full, takes nothing, and logging does not wait for it.

enum tLogLevel : int {
  kLogError = 1,
  kLogWarning = 2,
  kLogInfo = 3,
  kLogDebug = 4,
};

/// Opens syslog. Call once, before the first `Log`.
void OpenSysLog();

/// Sets the highest level that is written. 0 silences everything. Takes any value as it is.
void SetLogLevel(int level);

/// Sets the log file; an empty path means syslog.
void SetLogFile(const std::string& path);

/// Why lines cannot be written to a log file of this path at present, as an error number; 0 when
/// they can. Neither makes nor opens the file.
[[nodiscard]] int LogFileError(const std::string& path);

/// True when an entry of this level is written; lets a busy caller leave the building of its text.
[[nodiscard]] bool LogsAt(int level);

/// Writes one entry. `message` has no prefix and no line end of its own. A level above the log
/// level, or outside 1..4, writes nothing. Never fails: a file that cannot be opened or written
/// drops the entry. Requires, where the file may be a pipe: SIGPIPE does not end the process.
void Log(const std::string& message, int level);

/// The same for a process that has no memory left: takes none. `message` has at most 200 bytes.
void LogWithoutMemory(const char* message, int level);
