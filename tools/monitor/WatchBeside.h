#pragma once

#include <cstdint>

#include "program/MainLoop.h"
#include "tools/monitor/Deliveries.h"

namespace tools {

/// Watches, until the loop ends, what passes between the daemon and the application on this port of
/// 127.0.0.1. False, after a line on standard error, when it cannot be watched, such as in a build
/// without libpcap.
[[nodiscard]] bool WatchBeside(std::uint16_t port, Deliveries::Handlers handlers,
                               program::MainLoop& loop);

}  // namespace tools
