#include "program/Output.h"

#include <glib.h>

#include <cstdio>

namespace program {

bool Print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) {
    return true;
  }
  Complain("cannot write to standard output");
  return false;
}

void Complain(const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", g_get_prgname(), text.c_str());
}

}  // namespace program
