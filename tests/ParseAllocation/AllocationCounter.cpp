#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local long allocations = 0;
}  // namespace

long AllocationCounter::count() noexcept {
  return allocations;
}

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
