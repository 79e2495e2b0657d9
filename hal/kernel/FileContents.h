#pragma once

#include <optional>
#include <string>

#include "glib/Handles.h"

namespace halkernel {

/// The bytes of a file; nothing if it cannot be opened or read, and `error` has the reason.
std::optional<std::string> FileContents(const std::string& path, glib::ErrorHolder& error);

}  // namespace halkernel
