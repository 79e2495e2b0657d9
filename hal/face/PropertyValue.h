#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace hal {

using PropertyValue =
    std::variant<std::string, std::int32_t, std::uint64_t, double, bool, std::vector<std::string>>;

}  // namespace hal
