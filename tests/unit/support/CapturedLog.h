#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "frame/Log.h"
#include "support/TemporaryDirectory.h"

/// One line of the log.
struct tLogLine {
  int level = 0;
  std::string message;

  bool operator==(const tLogLine&) const = default;
};

std::ostream& operator<<(std::ostream& out, const tLogLine& line);

/// Sends the log to a file of its own, down to `level`, and reads it back. At the end of its life
/// the log is silent.
class tCapturedLog {
 public:
  explicit tCapturedLog(int level = kLogDebug);
  ~tCapturedLog();
  tCapturedLog(const tCapturedLog&) = delete;
  tCapturedLog& operator=(const tCapturedLog&) = delete;

  /// The file's content as it stands.
  [[nodiscard]] std::string Text() const;

  /// The lines logged so far. A line that is not of the log's form comes back with level 0.
  [[nodiscard]] std::vector<tLogLine> Lines() const;

  /// True when this very line was logged.
  [[nodiscard]] bool Holds(int level, const std::string& message) const;

  [[nodiscard]] std::string Path() const { return m_Directory.Path("log"); }

 private:
  tTemporaryDirectory m_Directory;
};
