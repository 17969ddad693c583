#include <Mox/DeadlineHeap.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

using Entry = Mox::DeadlineHeap::Entry;
using Key = std::pair<double, Mox::U64>;  // (deadline, sequence)

// Differential: the heap against an ordered set of (key, entry) over random operations.
// Few distinct deadlines, so ties (and their order) are exercised; rescheduling to the
// deadline an entry already has keeps its place, and kNever takes it out.
TEST(DeadlineHeap, MatchesAnOrderedSetOverRandomOperations) {
  std::mt19937 random(20261121);
  std::vector<Entry> entries(300);
  Mox::DeadlineHeap heap;
  std::map<size_t, Key> keys;
  std::set<std::pair<Key, size_t>> order;
  auto modelRemove = [&](size_t id) {
    if (keys.count(id)) order.erase({keys[id], id});
    keys.erase(id);
  };
  for (int step = 0; step < 20000; ++step) {
    const size_t id = random() % entries.size();
    const double deadline = random() % 17 == 0 ? Mox::kNever : double(random() % 50);
    if (random() % 4 == 0) {
      heap.remove(&entries[id]);
      modelRemove(id);
    } else {
      const bool unchanged = keys.count(id) && keys[id].first == deadline;
      const Mox::U64 sequence = heap.nextSequence();
      heap.schedule(&entries[id], deadline);
      if (!unchanged) {
        modelRemove(id);
        if (deadline != Mox::kNever) order.insert({keys[id] = {deadline, sequence}, id});
      }
    }
    ASSERT_EQ(entries[id].scheduled(), keys.count(id) > 0);
    ASSERT_EQ(heap.size(), order.size());
    ASSERT_EQ(heap.top(), order.empty() ? nullptr : &entries[order.begin()->second]);
    ASSERT_EQ(heap.earliest(), order.empty() ? Mox::kNever : order.begin()->first.first);
  }
  std::vector<Entry*> due, expected;
  heap.appendDue(20.0, due);
  for (const auto& [key, id] : order) {
    if (key.first <= 20.0) expected.push_back(&entries[id]);
  }
  EXPECT_EQ(due, expected);
}

}  // namespace
