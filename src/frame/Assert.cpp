#include "frame/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

void AssertionFailed(const char* condition, const char* file, int line, const char* function) {
  std::string_view source = file;
  source.remove_prefix(source.rfind('/') + 1);
  source = source.substr(0, source.rfind('.'));
  std::fprintf(stderr, "voldrake: %.*s:%d: %s: Assertion `%s' failed.\n",
               static_cast<int>(source.size()), source.data(), line, function, condition);
  std::abort();
}
