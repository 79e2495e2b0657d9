#pragma once

#include <optional>
#include <string>

#include "hal/DeviceTree.h"

namespace halsim {

/// The introspection text of an object, or of a path with objects below it; nothing for any other
/// path.
std::optional<std::string> Introspect(const DeviceTree& tree, const std::string& path);

}  // namespace halsim
