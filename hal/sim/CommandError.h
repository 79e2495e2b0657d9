#pragma once

#include <stdexcept>
#include <string>

namespace halsim {

/// A command that cannot be carried out. Thrown only while a command is read or carried out, and
/// caught in one place, Commands::Run; the text is the answer's.
class CommandError : public std::runtime_error {
 public:
  explicit CommandError(const std::string& text) : std::runtime_error(text) {}
};

}  // namespace halsim
