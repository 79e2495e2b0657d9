#pragma once

#include <string>

namespace halsim {

/// Standard output: answers and events, one line each, flushed at once. A reader that went away is
/// no reason to end.
class LineOutput {
 public:
  /// Control characters become '?', so that a line stays one line.
  void Line(std::string text);
};

}  // namespace halsim
