#pragma once

#include <string>

namespace halsim {

/// Standard output: answers and events, one line each, flushed at once. The program goes on if the
/// reader has gone.
class LineOutput {
 public:
  /// Control characters become '?', so that a line stays one line.
  void Line(std::string text);
};

}  // namespace halsim
