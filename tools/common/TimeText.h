#pragma once

#include <chrono>
#include <string>

namespace tools {

/// Local time of day with milliseconds, such as "14:03:59.120".
[[nodiscard]] std::string ClockText(std::chrono::system_clock::time_point time);

/// Date and time in UTC with milliseconds, such as "2024-11-21T14:03:59.120Z".
[[nodiscard]] std::string IsoText(std::chrono::system_clock::time_point time);

}  // namespace tools
