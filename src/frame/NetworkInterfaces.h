#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

// IPv4 addresses of the unit's network interfaces, as 32-bit values in network byte order.

/// Lists the addresses of all interfaces that have one, in the kernel's order (SIOCGIFCONF). False,
/// with an empty list, on failure, which is printed to standard error, and when there is none.
/// Any thread; does not block.
[[nodiscard]] bool GetInterfaceAddresses(std::vector<in_addr_t>& addresses);

/// Reads the address of one interface (SIOCGIFADDR); 0 when the interface is missing or has none.
/// The name counts up to its 15th character. False only when no socket could be opened. Any thread.
[[nodiscard]] bool GetInterfaceAddress(const std::string& name, in_addr_t& address);
