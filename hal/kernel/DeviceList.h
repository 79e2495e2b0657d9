#pragma once

#include <string>

#include "hal/face/DeviceTree.h"

// What `voldrake-hald --list` shows.

namespace halkernel {

/// One line per device, indented below its parent: its name and, for disks and volumes, what people
/// look for. Contains nothing that can control a terminal.
std::string ListText(const hal::DeviceTree& tree);

/// One JSON object per line for each device, parents first: {"udi":"...","properties":{...}}.
std::string ListJson(const hal::DeviceTree& tree);

}  // namespace halkernel
