// SPDX-License-Identifier: Apache-2.0
#include "tests/support/allocation_counter.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace {
std::atomic<bool> gCounting{false};
std::atomic<int64_t> gAllocations{0};

void noteAllocation() {
  if (gCounting.load(std::memory_order_relaxed)) gAllocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUELTA_TEST_UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define QUELTA_TEST_UNDER_ASAN 1
#endif

#if defined(QUELTA_TEST_UNDER_ASAN)
// AddressSanitizer owns malloc and operator new; it reports every allocation
// to a hook instead. (Declared here: GCC ships no allocator_interface.h.)
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*mallocHook)(const volatile void*, std::size_t), void (*freeHook)(const volatile void*));

namespace {
void mallocHook(const volatile void*, std::size_t) { noteAllocation(); }
void freeHook(const volatile void*) {}
[[maybe_unused]] const int gHooksInstalled = __sanitizer_install_malloc_and_free_hooks(mallocHook, freeHook);
}  // namespace

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* ptr, std::size_t size);
void __libc_free(void* ptr);
}

extern "C" {
void* malloc(std::size_t size) {
  noteAllocation();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  noteAllocation();
  return __libc_calloc(count, size);
}
void* realloc(void* ptr, std::size_t size) {
  noteAllocation();
  return __libc_realloc(ptr, size);
}
void free(void* ptr) { __libc_free(ptr); }
}  // extern "C"

void* operator new(std::size_t size) {
  void* p = malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, std::size_t) noexcept { free(p); }
void operator delete[](void* p, std::size_t) noexcept { free(p); }

#endif  // QUELTA_TEST_UNDER_ASAN

namespace quelta::test {

AllocationCounter::AllocationCounter() {
  gAllocations.store(0);
  gCounting.store(true);
}

AllocationCounter::~AllocationCounter() { gCounting.store(false); }

int64_t AllocationCounter::count() const { return gAllocations.load(); }

}  // namespace quelta::test
