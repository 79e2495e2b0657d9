#pragma once

#include <string>

#include "glib/Handles.h"

namespace halsim {

/// Parses a message's body in GVariant text form: a tuple, or null if the text is empty, for a body
/// without arguments. Throws CommandError if the text is invalid, or if the bus would close the
/// connection over such a message.
glib::VariantPointer ParseMessageBody(const std::string& text);

}  // namespace halsim
