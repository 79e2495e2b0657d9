#pragma once

#include <string>
#include <string_view>

#include "hal/face/PropertyValue.h"

namespace halsim {

/// Parses TYPE:VALUE as in docs/halsim.md. Throws CommandError on an unknown type or an invalid
/// value.
hal::PropertyValue ParsePropertyValue(std::string_view text);

/// TYPE:VALUE, quoted where necessary so that it can be parsed again as one word.
std::string FormatPropertyValue(const hal::PropertyValue& value);

}  // namespace halsim
