#pragma once

#include <string>
#include <utility>
#include <vector>

namespace halsim {

/// Runs a command with /bin/sh -c and waits for it. Standard input is empty, standard output goes
/// to standard error. Returns true if it ended with status 0.
[[nodiscard]] bool RunShell(const std::string& command,
                            const std::vector<std::pair<std::string, std::string>>& environment);

}  // namespace halsim
