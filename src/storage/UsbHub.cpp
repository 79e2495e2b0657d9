#include "storage/UsbHub.h"

bool UsbHubFromSysfsPath(const std::string& path, std::string& hub) {
  const size_t host = path.find("host");
  if (host == std::string::npos || host <= 2) return false;
  const size_t slash = path.rfind('/', host - 2);
  if (slash == std::string::npos) return false;
  hub.clear();
  for (size_t i = slash + 1; i < path.size() && path[i] != '/'; ++i) {
    switch (path[i]) {
      case ':':
        hub += "--";
        break;
      case '.':
        hub += '_';
        break;
      default:
        hub += path[i];
    }
  }
  return true;
}
