#include "volumes/IdentityText.h"

#include <cstring>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"

void tIdentityText::Refresh() {
  const time_t stamp = GetFileModifiedTime(m_File);
  if (stamp == m_Stamp) return;
  int error = 0;
  m_Text = ReadFirstLine(m_File, &error);
  m_Stamp = stamp;
  if (stamp != 0 && error != 0) {
    const std::string reason = strerror(error);
    Log("Identity file " + Printable(m_File) + " cannot be read: " + reason, kLogWarning);
  }
}
