#include "hal/kernel/FileContents.h"

#include <glib.h>

namespace halkernel {

std::optional<std::string> FileContents(const std::string& path, glib::ErrorHolder& error) {
  gchar* bytes = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path.c_str(), &bytes, &length, error.Out())) return std::nullopt;
  const glib::CharPointer owner(bytes);
  return std::string(bytes, length);
}

}  // namespace halkernel
