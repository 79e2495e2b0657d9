#include "frame/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "frame/FileDescriptor.h"
#include "frame/SystemCall.h"

namespace {

struct tLevelNames {
  const char* prefix;  // always eight characters, the columns of the log file depend on it
  int priority;
};

constexpr tLevelNames kLevelNames[] = {
    {"Error:  ", LOG_ERR},
    {"Warning:", LOG_WARNING},
    {"Log:    ", LOG_INFO},
    {"Debug:  ", LOG_DEBUG},
};

constexpr size_t kTimeTextBytes = 40;
constexpr size_t kShortLineBytes = 256;

int gLogLevel = kLogInfo;
std::string gLogFile;

/// Short enough for a string that takes no memory.
std::string LocalTimeText() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[kTimeTextBytes];
  return std::string(text, strftime(text, sizeof text, "%X: ", &local));
}

void AppendToFile(std::string_view line) {
  // A log that is a pipe must not hold up the thread: O_NONBLOCK drops what nobody takes.
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const tFileDescriptor file(RetryInterrupted([] { return open(gLogFile.c_str(), kFlags, 0666); }));
  if (!file.IsOpen()) return;
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t count = RetryInterrupted(
        [&] { return write(file.Get(), line.data() + written, line.size() - written); });
    if (count <= 0) return;
    written += static_cast<size_t>(count);
  }
}

}  // namespace

void OpenSysLog() {
  openlog("Voldrake", 0, LOG_DAEMON);
}

void SetLogLevel(int level) {
  gLogLevel = level;
}

void SetLogFile(const std::string& path) {
  gLogFile = path;
}

int LogFileError(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) return EISDIR;
    return access(path.c_str(), W_OK) == 0 ? 0 : errno;
  }
  if (errno != ENOENT) return errno;
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  return access(directory.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

bool LogsAt(int level) {
  return level <= gLogLevel && level >= kLogError && level <= kLogDebug;
}

void Log(const std::string& message, int level) {
  if (!LogsAt(level)) return;
  const tLevelNames& names = kLevelNames[level - kLogError];
  if (gLogFile.empty()) {
    syslog(names.priority, "%s", message.c_str());
    return;
  }
  AppendToFile(LocalTimeText() + "Voldrake: " + names.prefix + message + "\n");
}

void LogWithoutMemory(const char* message, int level) {
  if (!LogsAt(level)) return;
  const tLevelNames& names = kLevelNames[level - kLogError];
  if (gLogFile.empty()) {
    syslog(names.priority, "%s", message);
    return;
  }
  char line[kShortLineBytes];
  const int length = std::snprintf(line, sizeof line, "%sVoldrake: %s%s\n", LocalTimeText().c_str(),
                                   names.prefix, message);
  AppendToFile({line, std::min(static_cast<size_t>(length), sizeof line - 1)});
}
