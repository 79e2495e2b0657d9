#include "hal/sim/LineOutput.h"

#include <cstdio>

namespace halsim {

void LineOutput::Line(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20) c = '?';
  }
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

}  // namespace halsim
