#pragma once

#include <optional>
#include <string>

#include "hal/face/DeviceTree.h"

// The service's interfaces as introspection describes them: one description, used both to check
// calls and to answer introspection.

namespace hal {

/// The signature of a method's arguments, such as "ssas". Requires: the interface has the method.
const std::string& ArgumentSignature(const std::string& interface, const std::string& member);

/// The introspection text of an object, or of a path with objects below it; nullopt for any other
/// path.
std::optional<std::string> Introspect(const DeviceTree& tree, const std::string& path);

}  // namespace hal
