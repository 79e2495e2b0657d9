#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace halsim {

/// Splits a stream of bytes into lines. A line that is too long is reported once, without its text.
class LineSplitter {
 public:
  static constexpr std::size_t kMaxLineBytes = 65536;

  /// Called for each line without its line feed; `complete` is false for a line that was too long.
  using LineHandler = std::function<void(std::string_view line, bool complete)>;

  explicit LineSplitter(LineHandler handler) : handler_(std::move(handler)) {}

  void Feed(std::string_view bytes);
  /// The stream has ended: a last line without a line feed counts as a line.
  void Finish();

 private:
  void EndLine();

  const LineHandler handler_;
  std::string line_;
  bool tooLong_ = false;
};

}  // namespace halsim
