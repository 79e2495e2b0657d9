#pragma once

#include <string>

#include "glib/Handles.h"

namespace halsim {

/// Reads a message's body in GVariant text form: a tuple, or nothing for a body without arguments
/// (null). Throws CommandError when the text is bad, and when the bus would hang up on such a
/// message.
glib::VariantPointer ParseMessageBody(const std::string& text);

}  // namespace halsim
