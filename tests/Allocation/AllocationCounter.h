#pragma once
// Every global operator new in this test binary is counted, so tests can show that a code
// path never touches the heap. The binary is its own, so the replacement affects nothing else.

namespace AllocationCounter {

// Allocations made by the calling thread so far.
long count() noexcept;

// Allocations made by the calling thread while `action` ran.
template <class Action>
long during(Action&& action) {
  const long before = count();
  action();
  return count() - before;
}

}  // namespace AllocationCounter
