#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

inline constexpr const char* kConfigurationFile = "/etc/voldrake.conf";

/// One entry of the configuration file.
struct UsbMapEntry {
  std::string name;     ///< display name
  std::string usbid;    ///< part of the USB port path ("1-1_3"); sought in HalVolumeInfo::USBHub
  bool mmc = false;     ///< the device is an SD/MMC card reader
  bool ignore = false;  ///< `ignoreDevice` is to be ignored
  std::string ignoreDevice;  ///< block device path ("/dev/sdb1"), compared as a whole
};

using tUsbMap = std::map<std::string, UsbMapEntry>;

/// Reads a configuration text and hands each complete entry to `commit`, in order.
///
/// The text is a sequence of items KEY=VALUE. A key runs to the next "=", over line ends; a value
/// to the end of its line. Nothing is trimmed. Items with an empty key or value are skipped, and so
/// are unknown keys; a line without "=" therefore becomes part of the next key and makes it
/// unknown. "name" ends the entry before it and begins the next; any other first item begins one
/// too. The last entry of the text counts only when it has a name and a usbid.
void ParseUsbMap(std::string_view text, const std::function<void(const UsbMapEntry&)>& commit);

/// The unit's configuration, read once by the constructor and never changed after it, so every
/// thread may call the getters.
class ConfigManager {
 public:
  /// Reads `file`, up to 16 MB of it (what follows counts as not there), and logs each entry. A
  /// file that is missing or cannot be read leaves both tables empty.
  explicit ConfigManager(const std::string& file = kConfigurationFile);

  /// A copy of the entries that name a device, by usbid. Of two with the same usbid the later
  /// counts.
  [[nodiscard]] tUsbMap GetUsbMap() const { return m_UsbMap; }

  /// A copy of the entries that ignore a device, by ignoreDevice.
  [[nodiscard]] tUsbMap GetIgnoreMap() const { return m_IgnoreMap; }

 private:
  void _Commit(const UsbMapEntry& entry);

  tUsbMap m_UsbMap;
  tUsbMap m_IgnoreMap;
};
