#pragma once

#include <netinet/in.h>

/// Reads the link-local address (169.254.0.0/16) of the interface that shares are announced on, in
/// network byte order. False when the interface has none. Any thread; does not block.
[[nodiscard]] bool GetLinkLocalAddress(in_addr_t& address);
