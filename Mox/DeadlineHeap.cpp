#include <Mox/Assert.h>
#include <Mox/DeadlineHeap.h>

#include <algorithm>

namespace Mox {

void DeadlineHeap::schedule(Entry* entry, double deadline) {
  if (deadline == kNever) {
    remove(entry);
    return;
  }
  if (entry->scheduled() && entry->deadline == deadline) return;
  const bool earlier = entry->deadline > deadline;
  entry->deadline = deadline;
  entry->sequence = nextSequence_++;
  if (!entry->scheduled()) {
    entries_.push_back(entry);
    place(entry, entries_.size() - 1);
    siftUp(entry->index);
  } else if (earlier) {
    siftUp(entry->index);
  } else {
    siftDown(entry->index);
  }
}

void DeadlineHeap::remove(Entry* entry) {
  entry->deadline = kNever;
  if (!entry->scheduled()) return;
  const size_t index = entry->index;
  MOX_ASSERT(entries_[index] == entry);
  entry->index = kAbsent;
  Entry* last = entries_.back();
  entries_.pop_back();
  if (last == entry) return;
  place(last, index);
  siftUp(index);
  siftDown(last->index);
}

void DeadlineHeap::appendDue(double time, std::vector<Entry*>& due) const {
  const size_t first = due.size();
  collectDue(0, time, due);
  std::sort(due.begin() + static_cast<std::ptrdiff_t>(first), due.end(), before);
}

void DeadlineHeap::collectDue(size_t index, double time, std::vector<Entry*>& due) const {
  // A child is never earlier than its parent, so a subtree whose root is not due is skipped.
  if (index >= entries_.size() || entries_[index]->deadline > time) return;
  due.push_back(entries_[index]);
  collectDue(2 * index + 1, time, due);
  collectDue(2 * index + 2, time, due);
}

void DeadlineHeap::place(Entry* entry, size_t index) noexcept {
  entries_[index] = entry;
  entry->index = index;
}

void DeadlineHeap::siftUp(size_t index) noexcept {
  Entry* entry = entries_[index];
  while (index > 0) {
    const size_t parent = (index - 1) / 2;
    if (!before(entry, entries_[parent])) break;
    place(entries_[parent], index);
    index = parent;
  }
  place(entry, index);
}

void DeadlineHeap::siftDown(size_t index) noexcept {
  Entry* entry = entries_[index];
  const size_t count = entries_.size();
  for (;;) {
    size_t child = 2 * index + 1;
    if (child >= count) break;
    if (child + 1 < count && before(entries_[child + 1], entries_[child])) ++child;
    if (!before(entries_[child], entry)) break;
    place(entries_[child], index);
    index = child;
  }
  place(entry, index);
}

}  // namespace Mox
