// What the daemon has instead of the C++ runtime's handling of exceptions.
//
// Nothing in the daemon throws or catches, and it is compiled without the means to. The standard
// library throws in two cases: when memory has run out, and over a size or a position that cannot
// be. Nobody would catch that, so that it ends the process either way. But the runtime prepares
// for more: it sets memory aside at the start, 73 KB on a 64-bit machine, for the exceptions of a
// time without memory, and it prints an exception's name with a demangler that is a quarter of the
// program. Neither gets into the program when it has functions of these names itself: the two of
// the C++ ABI that hand out the memory of an exception, the first of which each "throw" calls
// before anything else, and the runtime's manual's handler for exceptions that nobody caught.
//
// For a daemon with the runtime inside only. With a shared runtime they would take the place of the
// functions of every library in the process.

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "frame/Log.h"

namespace {

constexpr const char* kLastWords = "memory has run out, or a text or list was used beyond its end";

}  // namespace

extern "C" void* __cxa_allocate_exception(std::size_t) noexcept {
  std::fprintf(stderr, "voldrake: %s\n", kLastWords);
  LogWithoutMemory(kLastWords, kLogError);
  std::abort();
}

extern "C" void __cxa_free_exception(void*) noexcept {
  std::abort();  // none was ever handed out
}

void __gnu_cxx::__verbose_terminate_handler() {
  std::abort();
}
