#pragma once

#include <string>
#include <string_view>

#include "hal/face/PropertyValue.h"

namespace halsim {

/// Reads TYPE:VALUE as docs/halsim.md says. Throws CommandError on an unknown type or a bad value.
hal::PropertyValue ParsePropertyValue(std::string_view text);

/// TYPE:VALUE, quoted where needed so that it can be read back as one word.
std::string FormatPropertyValue(const hal::PropertyValue& value);

}  // namespace halsim
