#pragma once

#include <string>

#include "hal/face/DeviceTree.h"

// What `voldrake-hald --list` shows.

namespace halkernel {

/// A line for each device, indented below its parent: its name, and of disks and volumes what
/// people look for. Nothing in it can drive a terminal.
std::string ListText(const hal::DeviceTree& tree);

/// A JSON object a line for each device, parents first: {"udi":"...","properties":{...}}.
std::string ListJson(const hal::DeviceTree& tree);

}  // namespace halkernel
