#pragma once
// Measures our code and a baseline over the same batch of inputs in every iteration, so the
// ratio comes from one run: ratio = baseline time / our time, 1.0 or more meaning ours is at
// least as fast. Times are each side's fastest batch: the machine is shared, and a batch
// that was preempted says nothing about the code, so the best of many is the fair figure.
// With an allocation counter (a replaced global operator new), allocs_per_op counts the
// heap allocations our side made.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>

namespace bench {

constexpr size_t batch = 1024;

template <class Ours, class Baseline>
void compareSideBySide(benchmark::State& state, const std::string& baselineName, Ours ours,
                       Baseline baseline, const size_t* allocationCounter = nullptr) {
  using Clock = std::chrono::steady_clock;
  auto best = Clock::duration::max();
  auto bestBaseline = Clock::duration::max();
  size_t ourAllocations = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const size_t before = allocationCounter ? *allocationCounter : 0;
    for (size_t i = 0; i < batch; ++i) ours(i);
    if (allocationCounter) ourAllocations += *allocationCounter - before;
    const auto t1 = Clock::now();
    for (size_t i = 0; i < batch; ++i) baseline(i);
    const auto t2 = Clock::now();
    best = std::min(best, t1 - t0);
    bestBaseline = std::min(bestBaseline, t2 - t1);
  }
  auto perOp = [](Clock::duration d) {
    return std::chrono::duration<double, std::nano>(d).count() / batch;
  };
  state.counters["ours_ns"] = perOp(best);
  state.counters[baselineName + "_ns"] = perOp(bestBaseline);
  state.counters["ratio"] = perOp(bestBaseline) / perOp(best);
  if (allocationCounter) {
    state.counters["allocs_per_op"] =
        static_cast<double>(ourAllocations) / (static_cast<double>(state.iterations()) * batch);
  }
}

}  // namespace bench
