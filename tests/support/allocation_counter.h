// SPDX-License-Identifier: Apache-2.0
// Counts heap allocations made anywhere in the test process while a counter
// is alive. The test binary replaces malloc, calloc, realloc and free with
// thin wrappers over the C library's own allocator, and operator new/delete
// with calls to them, so allocations through either path are seen. Outside a
// counting scope the wrappers only pass through.
#pragma once

#include <cstdint>

namespace quelta::test {

class AllocationCounter {
 public:
  AllocationCounter();   // starts counting from zero
  ~AllocationCounter();  // stops counting
  AllocationCounter(const AllocationCounter&) = delete;
  AllocationCounter& operator=(const AllocationCounter&) = delete;

  // Allocations since construction.
  int64_t count() const;
};

}  // namespace quelta::test
