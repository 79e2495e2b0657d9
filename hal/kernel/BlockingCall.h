#pragma once

#include <functional>

namespace halkernel {

/// Runs `work` in a thread and then, on the main loop, `done` with its result. For system calls
/// that a device can block; a thread that hangs does not keep the process from ending. Requires:
/// `work` uses nothing that the main thread may use meanwhile.
void CallInThread(std::function<int()> work, std::function<void(int)> done);

}  // namespace halkernel
