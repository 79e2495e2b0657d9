#include "hal/sim/LineSplitter.h"

namespace halsim {

void LineSplitter::Feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const std::string_view part = bytes.substr(0, end);
    if (line_.size() + part.size() > kMaxLineBytes) tooLong_ = true;
    if (!tooLong_) line_ += part;
    if (end == std::string_view::npos) return;
    EndLine();
    bytes.remove_prefix(end + 1);
  }
}

void LineSplitter::Finish() {
  if (!line_.empty() || tooLong_) EndLine();
}

void LineSplitter::EndLine() {
  // Reset first: the handler may take its time, and must find a splitter in order.
  const std::string line = std::move(line_);
  const bool complete = !tooLong_;
  line_.clear();
  tooLong_ = false;
  handler_(complete ? std::string_view(line) : std::string_view(), complete);
}

}  // namespace halsim
