#include "frame/ConfigManager.h"

#include <algorithm>
#include <optional>

#include "frame/FileSystem.h"
#include "frame/Log.h"
#include "frame/Text.h"

namespace {

constexpr size_t kMaxFileBytes = size_t{16} * 1024 * 1024;

/// Cuts the text up to `end`, which is dropped, off the front of `text`; all of it when there is
/// none.
std::string_view TakeUntil(std::string_view& text, char end) {
  const size_t length = std::min(text.find(end), text.size());
  const std::string_view taken = text.substr(0, length);
  text.remove_prefix(std::min(length + 1, text.size()));
  return taken;
}

void SetField(UsbMapEntry& entry, std::string_view key, std::string_view value) {
  if (key == "name") entry.name = value;
  if (key == "usbid") entry.usbid = value;
  if (key == "mmc") entry.mmc = value == "true";
  if (key == "ignore") entry.ignore = value == "true";
  if (key == "ignoreDevice") entry.ignoreDevice = value;
}

}  // namespace

void ParseUsbMap(std::string_view text, const std::function<void(const UsbMapEntry&)>& commit) {
  std::optional<UsbMapEntry> entry;
  while (!text.empty()) {
    const std::string_view key = TakeUntil(text, '=');
    const std::string_view value = TakeUntil(text, '\n');
    if (key.empty() || value.empty()) continue;
    if (entry && key == "name") {
      commit(*entry);
      entry.reset();
    }
    if (!entry) entry.emplace();
    SetField(*entry, key, value);
  }
  if (entry && !entry->name.empty() && !entry->usbid.empty()) commit(*entry);
}

ConfigManager::ConfigManager(const std::string& file) {
  ParseUsbMap(ReadFile(file, kMaxFileBytes).value_or(""),
              [this](const UsbMapEntry& entry) { _Commit(entry); });
}

void ConfigManager::_Commit(const UsbMapEntry& entry) {
  Log("USB MAP: name=" + entry.name + " usbid=" + entry.usbid + " mmc=" + BoolText(entry.mmc) +
          " ignore=" + BoolText(entry.ignore) + " ignoreDevice=" + entry.ignoreDevice,
      kLogInfo);
  if (entry.ignore) {
    m_IgnoreMap[entry.ignoreDevice] = entry;
  } else {
    m_UsbMap[entry.usbid] = entry;
  }
}
