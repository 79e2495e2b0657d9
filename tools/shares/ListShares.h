#pragma once

namespace tools {

/// `voldrake-shares [list]`: shows the shares on the network as they come and go, or lists those
/// that are there. Returns the program's exit status.
[[nodiscard]] int ListShares(int argc, char* argv[]);

}  // namespace tools
