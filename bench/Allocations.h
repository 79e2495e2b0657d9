#pragma once

#include <cstddef>

/// How often the calling thread has allocated so far.
[[nodiscard]] size_t AllocationCount();
