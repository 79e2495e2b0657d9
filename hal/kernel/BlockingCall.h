#pragma once

#include <functional>

namespace halkernel {

/// Runs `work` in a thread of its own kind and then `done` with its result on the main loop.
/// For system calls that a device can hold up; a thread that hangs does not keep the process from
/// ending. Requires: `work` touches nothing that the main thread may use meanwhile.
void CallInThread(std::function<int()> work, std::function<void(int)> done);

}  // namespace halkernel
