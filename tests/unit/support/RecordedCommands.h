#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "frame/Shell.h"

/// Stands in for the shell: records each command line and ends it as told, with 0 unless told
/// otherwise. Any thread.
class tRecordedCommands {
 public:
  /// For the class under test; refers to this object.
  [[nodiscard]] tCommandRunner Runner() {
    return [this](const std::string& command) { return _Run(command); };
  }

  /// From now on commands that begin like this end with this wait status.
  void End(const std::string& beginning, int waitStatus) {
    const std::lock_guard lock(m_Lock);
    m_Endings[beginning] = waitStatus;
  }

  /// What was run since the last call, in order.
  [[nodiscard]] std::vector<std::string> Take() {
    const std::lock_guard lock(m_Lock);
    return std::exchange(m_Commands, {});
  }

  /// Records something else in the same order.
  void Note(std::string line) {
    const std::lock_guard lock(m_Lock);
    m_Commands.push_back(std::move(line));
  }

 private:
  int _Run(const std::string& command) {
    const std::lock_guard lock(m_Lock);
    m_Commands.push_back(command);
    for (const auto& [beginning, waitStatus] : m_Endings) {
      if (command.starts_with(beginning)) return waitStatus;
    }
    return 0;
  }

  std::mutex m_Lock;
  std::vector<std::string> m_Commands;
  std::map<std::string, int> m_Endings;
};
