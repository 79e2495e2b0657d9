#pragma once

namespace tools {

/// `voldrake-shares [list]`: shows the shares on the network as they come and go, or those that are
/// there. Comes back with the program's exit status.
[[nodiscard]] int ListShares(int argc, char* argv[]);

}  // namespace tools
