#include <Mox/DeadlineHeap.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

using Entry = Mox::DeadlineHeap::Entry;

// An independent model of the heap: an ordered set of (deadline, sequence) per entry.
class Model {
 public:
  void schedule(size_t id, double deadline, Mox::U64 sequence) {
    remove(id);
    keys_[id] = {deadline, sequence};
    order_.insert({keys_[id], id});
  }
  void remove(size_t id) {
    auto key = keys_.find(id);
    if (key == keys_.end()) return;
    order_.erase({key->second, id});
    keys_.erase(key);
  }
  bool has(size_t id) const { return keys_.count(id) > 0; }
  double deadline(size_t id) const { return keys_.at(id).first; }
  size_t size() const { return order_.size(); }
  const std::set<std::pair<std::pair<double, Mox::U64>, size_t>>& order() const { return order_; }

 private:
  std::map<size_t, std::pair<double, Mox::U64>> keys_;
  std::set<std::pair<std::pair<double, Mox::U64>, size_t>> order_;
};

TEST(DeadlineHeap, MatchesAnOrderedSetOverRandomOperations) {
  std::mt19937 random(20261121);
  std::vector<Entry> entries(300);
  Mox::DeadlineHeap heap;
  Model model;
  for (int step = 0; step < 20000; ++step) {
    const size_t id = random() % entries.size();
    // Few distinct deadlines, so ties (and their order) are exercised.
    const double deadline = double(random() % 50);
    if (random() % 4 == 0) {
      heap.remove(&entries[id]);
      model.remove(id);
    } else {
      const bool unchanged = model.has(id) && model.deadline(id) == deadline;
      const Mox::U64 sequence = heap.nextSequence();
      heap.schedule(&entries[id], deadline);
      if (!unchanged) model.schedule(id, deadline, sequence);
    }
    ASSERT_EQ(heap.size(), model.size());
    if (model.size() == 0) {
      ASSERT_EQ(heap.top(), nullptr);
      continue;
    }
    ASSERT_EQ(heap.top(), &entries[model.order().begin()->second]);
    ASSERT_EQ(heap.earliest(), model.order().begin()->first.first);
  }
  std::vector<Entry*> due;
  heap.appendDue(20.0, due);
  std::vector<Entry*> expected;
  for (const auto& [key, id] : model.order()) {
    if (key.first <= 20.0) expected.push_back(&entries[id]);
  }
  EXPECT_EQ(due, expected);
}

TEST(DeadlineHeap, RescheduleToTheSameDeadlineKeepsItsPlace) {
  Entry first, second;
  Mox::DeadlineHeap heap;
  heap.schedule(&first, 5.0);
  heap.schedule(&second, 5.0);
  heap.schedule(&first, 5.0);
  EXPECT_EQ(heap.top(), &first);
}

TEST(DeadlineHeap, NeverTakesAnEntryOut) {
  Entry entry;
  Mox::DeadlineHeap heap;
  heap.schedule(&entry, 1.0);
  heap.schedule(&entry, Mox::kNever);
  EXPECT_TRUE(heap.empty());
  EXPECT_FALSE(entry.scheduled());
  EXPECT_EQ(entry.deadline, Mox::kNever);
}

}  // namespace
