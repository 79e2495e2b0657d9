// The configuration's reader takes any bytes: it may not crash, and what it commits must have been
// built by its rules.

#include "Source.h"
#include "frame/ConfigManager.h"

namespace {

bool Holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ParseUsbMap(text, [&](const UsbMapEntry& entry) {
    for (const std::string& value : {entry.name, entry.usbid, entry.ignoreDevice}) {
      Require(value.empty() || Holds(text, "=" + value));
      Require(!Holds(value, "\n"));
    }
    Require(!entry.mmc || Holds(text, "mmc=true"));
    Require(!entry.ignore || Holds(text, "ignore=true"));
  });
  return 0;
}
