#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local long allocations = 0;
}  // namespace

long AllocationCounter::count() noexcept {
  return allocations;
}

// Out of line, so the compiler does not pair malloc() and free() with new and delete.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
