#include "frame/FileWait.h"

#include <sys/stat.h>

#include <thread>

#include "frame/Log.h"
#include "frame/Text.h"

namespace {

using tClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollInterval{250};

std::chrono::seconds WholeSecondsNow() {
  return std::chrono::floor<std::chrono::seconds>(tClock::now().time_since_epoch());
}

bool HasContent(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

bool WaitForFile(const std::string& path, std::chrono::seconds deadline) {
  while (WholeSecondsNow() < deadline) {
    if (HasContent(path)) return true;
    std::this_thread::sleep_for(kPollInterval);
  }
  return false;
}

}  // namespace

void WaitForFiles(const std::vector<std::string>& files, std::chrono::seconds timeout) {
  const std::chrono::seconds deadline = WholeSecondsNow() + timeout;
  Log("Voldrake waiting for files to appear", kLogInfo);
  for (const std::string& file : files) {
    if (!WaitForFile(file, deadline)) {
      Log("Some files not found", kLogInfo);
      return;
    }
    Log("Found: " + file, kLogInfo);
  }
}

void WarnOfMissingFiles(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (HasContent(file)) continue;
    Log("Identity file " + Printable(file) + " is missing or empty", kLogWarning);
  }
}
