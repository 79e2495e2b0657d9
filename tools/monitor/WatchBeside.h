#pragma once

#include <cstdint>

#include "program/MainLoop.h"
#include "tools/monitor/Deliveries.h"

namespace tools {

/// Watches the traffic between the daemon and the application on this port of 127.0.0.1 until the
/// loop ends. Returns false, after a line on standard error, if that is not possible, for instance
/// in a build without libpcap.
[[nodiscard]] bool WatchBeside(std::uint16_t port, Deliveries::Handlers handlers,
                               program::MainLoop& loop);

}  // namespace tools
