#pragma once

#include <netinet/in.h>

/// Reads the link-local address (169.254.0.0/16) of the interface that shares are announced on, in
/// network byte order. False when the interface has none. Any thread; does not block.
[[nodiscard]] bool GetLinkLocalAddress(in_addr_t& address);

/// The interface that shares are announced on, as it is at the moment.
struct tShareInterface {
  unsigned index = 0;     ///< the kernel's number of it; 0 while there is none of the name
  in_addr_t address = 0;  ///< link-local, in network byte order; 0 while it has none

  bool operator==(const tShareInterface&) const = default;
};

/// Looks at it now. Any thread; does not block.
[[nodiscard]] tShareInterface GetShareInterface();
