#include "frame/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "frame/Log.h"

void AssertionFailed(const char* condition, const char* file, int line, const char* function) {
  std::string_view source = file;
  source.remove_prefix(source.rfind('/') + 1);
  source = source.substr(0, source.rfind('.'));
  const std::string text = std::string(source) + ":" + std::to_string(line) + ": " + function +
                           ": Assertion `" + condition + "' failed.";
  std::fprintf(stderr, "voldrake: %s\n", text.c_str());
  Log(text, kLogError);
  std::abort();
}
