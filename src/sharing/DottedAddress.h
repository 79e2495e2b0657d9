#pragma once

#include <netinet/in.h>

#include <string>

/// An IPv4 address as dotted text ("169.254.3.7").
[[nodiscard]] std::string Dotted(in_addr address);
