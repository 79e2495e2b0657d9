#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace halkernel {

struct ChildResult {
  bool succeeded = false;  // it exited with status 0
  std::string output;      // the first 4,096 bytes of what it wrote; or why it could not be started
};

/// Starts a program, found along PATH, without a shell: standard input is empty, both outputs are
/// read. Returns at once; the handlers run on the main loop: `late` if the program has not ended
/// within the limit, `ended` once, after it has ended. It is never killed: a mount that hangs in
/// the kernel cannot be, and one that is only slow will still succeed. Reads all output, even that
/// of helpers that outlive the program. Requires: at least one word.
void RunChild(const std::vector<std::string>& words, std::chrono::milliseconds limit,
              std::function<void()> late, std::function<void(const ChildResult&)> ended);

}  // namespace halkernel
