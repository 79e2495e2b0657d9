#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace halkernel {

struct ChildResult {
  bool succeeded = false;  // it ended by itself with status 0
  std::string output;      // the first 4,096 bytes of what it wrote; or why it could not be started
};

/// Starts a program, found along PATH, without a shell: standard input is empty, both outputs are
/// read. Returns at once; the handlers run on the main loop, `late` if the program has not ended
/// when the limit is over, `ended` once, after it has ended. It is never killed: a mount that hangs
/// in the kernel could not be, and one that is only slow still comes about.
/// Output is read to its end, even that of helpers that outlive the program.
/// Requires: at least one word.
void RunChild(const std::vector<std::string>& words, std::chrono::milliseconds limit,
              std::function<void()> late, std::function<void(const ChildResult&)> ended);

}  // namespace halkernel
