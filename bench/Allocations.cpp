#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local size_t gAllocations = 0;

}  // namespace

size_t AllocationCount() {
  return gAllocations;
}

void* operator new(size_t size) {
  ++gAllocations;
  void* const memory = std::malloc(size);
  if (memory == nullptr) std::abort();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
