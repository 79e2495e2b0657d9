#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace halsim {

using PropertyValue =
    std::variant<std::string, std::int32_t, std::uint64_t, double, bool, std::vector<std::string>>;

/// Reads TYPE:VALUE as docs/halsim.md says. Throws CommandError on an unknown type or a bad value.
PropertyValue ParsePropertyValue(std::string_view text);

/// TYPE:VALUE, quoted where needed so that it can be read back as one word.
std::string FormatPropertyValue(const PropertyValue& value);

}  // namespace halsim
