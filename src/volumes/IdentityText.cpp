#include "volumes/IdentityText.h"

#include "frame/FileSystem.h"

void tIdentityText::Refresh() {
  const time_t stamp = GetFileModifiedTime(m_File);
  if (stamp == m_Stamp) return;
  m_Text = ReadFirstLine(m_File);
  m_Stamp = stamp;
}
