#pragma once
// A binary min-heap of deadlines in which every entry knows its own position, so arming,
// re-arming and cancelling are O(log n) and the earliest deadline is O(1). Entries due at
// the same time come out in the order they were scheduled, which keeps firing order
// deterministic. The heap does not own its entries; an entry must leave before it dies.

#include <Mox/Time.h>
#include <Mox/Types.h>

#include <cstddef>
#include <vector>

namespace Mox {

class DeadlineHeap {
 public:
  static constexpr size_t kAbsent = static_cast<size_t>(-1);

  struct Entry {
    double deadline = kNever;
    U64 sequence = 0;  // when it was scheduled; breaks ties
    size_t index = kAbsent;
    bool scheduled() const noexcept { return index != kAbsent; }
  };

  // Puts the entry at `deadline` (kNever takes it out). Rescheduling to the deadline it
  // already has changes nothing, not even its place among equal deadlines.
  void schedule(Entry* entry, double deadline);
  void remove(Entry* entry);

  bool empty() const noexcept { return entries_.empty(); }
  size_t size() const noexcept { return entries_.size(); }
  Entry* top() const noexcept { return entries_.empty() ? nullptr : entries_.front(); }
  double earliest() const noexcept {
    return entries_.empty() ? kNever : entries_.front()->deadline;
  }
  // The sequence number the next scheduled entry gets.
  U64 nextSequence() const noexcept { return nextSequence_; }

  // Appends the entries due at `time` to `due`, earliest first.
  void appendDue(double time, std::vector<Entry*>& due) const;

 private:
  static bool before(const Entry* a, const Entry* b) noexcept {
    return a->deadline < b->deadline || (a->deadline == b->deadline && a->sequence < b->sequence);
  }
  void place(Entry* entry, size_t index) noexcept;
  void siftUp(size_t index) noexcept;
  void siftDown(size_t index) noexcept;
  void collectDue(size_t index, double time, std::vector<Entry*>& due) const;

  std::vector<Entry*> entries_;
  U64 nextSequence_ = 0;
};

}  // namespace Mox
