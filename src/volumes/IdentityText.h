#pragma once

#include <ctime>
#include <string>
#include <utility>

/// The text of one identity file, the content id or the serial number, read again only when the
/// file's time changes. Main thread only.
class tIdentityText {
 public:
  explicit tIdentityText(std::string file) : m_File(std::move(file)) {}

  /// Brings the text up to date with the file's first line; empty while there is none. A file that
  /// cannot be read is reported in the log, once for each change of its time.
  void Refresh();

  [[nodiscard]] const std::string& Text() const { return m_Text; }

 private:
  const std::string m_File;
  std::string m_Text;
  time_t m_Stamp = 0;  ///< the file's modification time when it was last read; 0: missing
};
