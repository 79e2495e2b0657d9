#include "volumes/IdentityText.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"

void tIdentityText::Refresh() {
  const time_t stamp = GetFileModifiedTime(m_File);
  if (stamp == m_Stamp) return;
  m_Text = ReadFirstLine(m_File);
  m_Stamp = stamp;
  if (stamp != 0 && access(m_File.c_str(), R_OK) != 0) {
    const std::string reason = strerror(errno);
    Log("Identity file " + Printable(m_File) + " cannot be read: " + reason, kLogWarning);
  }
}
