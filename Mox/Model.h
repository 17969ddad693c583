#pragma once
// Support for the C++ that tools/moxgen generates from model files (models/*.mox): the
// pieces every generated value and entity shares, kept here once instead of being
// repeated in each generated unit.

#include <Mox/Assert.h>
#include <Mox/AttrLog.h>
#include <Mox/Entity.h>
#include <Mox/Exception.h>
#include <Mox/Ptr.h>
#include <Mox/Text.h>
#include <Mox/Types.h>

#include <algorithm>
#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <limits>  // for model defaults such as an infinite time
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Mox {

// Hash of one attribute: its own hash() when it has one, std::hash otherwise.
template <class T>
U32 attrHash(const T& value) {
  if constexpr (requires { value.hash(); }) {
    return static_cast<U32>(value.hash());
  } else {
    return static_cast<U32>(std::hash<T>()(value));
  }
}

// Folds one attribute's hash into the running hash of a composite value.
constexpr U32 hashCombine(U32 seed, U32 hash) noexcept {
  return seed ^ (hash + 0x9e3779b9u + (seed << 6) + (seed >> 2));
}

// Array indexes are plain unsigned integers or bounded index values with value().
template <class I>
size_t indexOf(const I& index) {
  if constexpr (std::is_integral_v<I>) {
    return static_cast<size_t>(index);
  } else {
    return static_cast<size_t>(index.value());
  }
}

template <class I>
I indexFrom(size_t position) {
  if constexpr (std::is_integral_v<I>) {
    return static_cast<I>(position);
  } else {
    return I(static_cast<decltype(I().value())>(position));
  }
}

// An array entry holding the default value counts as absent, so an array ends at its last
// entry that holds something.
template <class T>
void trimDefaults(std::vector<T>* entries) {
  while (!entries->empty() && entries->back() == T()) entries->pop_back();
}

// Sequence bookkeeping of a queue attribute: `head` is the oldest queued sequence (equal to
// `tail` when the queue is empty), `tail` the sequence the next enqueued entry gets.
struct QueueMetadata {
  U32 head = 1;
  U32 tail = 1;
  friend bool operator==(const QueueMetadata&, const QueueMetadata&) = default;
};

// A queue attribute's entries: (sequence, entry) pairs in sequence order, oldest first.
// Entries come in at the back and leave at the front, so they sit in the slots
// [head, tail) of one vector: taking the oldest entry moves it out and steps `head`, and
// both indexes start over at the first slot when the queue empties. Slots are reused, not
// freed (a queue keeps room for its longest run), and the live part moves down to the first
// slot when the vector is full and that part is no longer than what lies before it. A queue
// in steady use thus allocates nothing, and an entry costs a store and an index step.
template <class V>
class QueueEntries {
 public:
  using value_type = std::pair<U32, V>;
  using iterator = typename std::vector<value_type>::iterator;
  using const_iterator = typename std::vector<value_type>::const_iterator;

  iterator begin() noexcept { return at(head_); }
  iterator end() noexcept { return at(tail_); }
  const_iterator begin() const noexcept { return at(head_); }
  const_iterator end() const noexcept { return at(tail_); }
  bool empty() const noexcept { return head_ == tail_; }
  size_t size() const noexcept { return tail_ - head_; }
  value_type& front() noexcept { return slots_[head_]; }
  const value_type& front() const noexcept { return slots_[head_]; }
  value_type& operator[](size_t offset) noexcept { return slots_[head_ + offset]; }
  const value_type& operator[](size_t offset) const noexcept { return slots_[head_ + offset]; }

  template <class... Args>
  void emplace_back(Args&&... args) {
    if (tail_ == slots_.size() && head_ >= size()) moveDown();
    if (tail_ < slots_.size()) {
      slots_[tail_] = value_type(std::forward<Args>(args)...);
    } else {
      slots_.emplace_back(std::forward<Args>(args)...);
    }
    ++tail_;
  }
  template <class... Args>
  iterator emplace(const_iterator position, Args&&... args) {
    ++tail_;
    return slots_.emplace(position, std::forward<Args>(args)...);
  }
  // Moves the oldest entry out.
  value_type takeFront() {
    value_type entry = std::move(slots_[head_++]);
    if (empty()) head_ = tail_ = 0;
    return entry;
  }
  iterator erase(const_iterator position) {
    const iterator removed = at(static_cast<size_t>(position - slots_.cbegin()));
    std::move(removed + 1, end(), removed);
    slots_[--tail_] = value_type();
    if (!empty()) return removed;
    head_ = tail_ = 0;
    return end();
  }

 private:
  iterator at(size_t slot) noexcept { return slots_.begin() + std::ptrdiff_t(slot); }
  const_iterator at(size_t slot) const noexcept { return slots_.begin() + std::ptrdiff_t(slot); }
  void moveDown() {
    std::move(begin(), end(), slots_.begin());
    tail_ -= head_;
    head_ = 0;
  }

  std::vector<value_type> slots_;
  size_t head_ = 0;  // the oldest entry's slot
  size_t tail_ = 0;  // the slot after the newest entry
};

template <class V>
void queueHeadUpdate(const QueueEntries<V>& entries, QueueMetadata* metadata) {
  metadata->head = entries.empty() ? metadata->tail : entries.front().first;
}

// The first entry whose sequence is not below `sequence` (end() when there is none).
template <class Entries>
auto queuePosition(Entries& entries, U32 sequence) {
  // Sequences are dense unless entries were deleted or set out of turn: try the direct place.
  if (!entries.empty() && sequence >= entries.front().first) {
    const size_t offset = sequence - entries.front().first;
    if (offset < entries.size() && entries[offset].first == sequence) {
      return entries.begin() + static_cast<std::ptrdiff_t>(offset);
    }
  }
  return std::lower_bound(entries.begin(), entries.end(), sequence,
                          [](const auto& entry, U32 s) { return entry.first < s; });
}

// The entry of `sequence`, or end().
template <class Entries>
auto queueFind(Entries& entries, U32 sequence) {
  auto entry = queuePosition(entries, sequence);
  return entry != entries.end() && entry->first == sequence ? entry : entries.end();
}

// One row of an enumeration's text table.
template <class E>
struct EnumText {
  E value;
  std::string_view text;
};

// The table's text of `value`; a value outside the table prints as its number.
template <class E, size_t N>
std::string enumToStrep(E value, const EnumText<E> (&table)[N]) {
  for (const auto& row : table) {
    if (row.value == value) return std::string(row.text);
  }
  return std::to_string(static_cast<std::underlying_type_t<E>>(value) + 0);
}

// Reads the longest table text at `it`; otherwise raises RangeException `message` and
// leaves both `it` and the value unchanged.
template <class E, size_t N>
void enumFromSequence(TextIter& it, TextIter end, E* value, const EnumText<E> (&table)[N],
                      const char* message) {
  const EnumText<E>* best = nullptr;
  for (const auto& row : table) {
    if (static_cast<size_t>(end - it) >= row.text.size() &&
        std::string_view(it, row.text.size()) == row.text &&
        (!best || row.text.size() > best->text.size())) {
      best = &row;
    }
  }
  if (!best) throw RangeException(message);
  it += best->text.size();
  *value = best->value;
}

// Reads an enumeration's attribute-log form, its underlying integer; a number that is
// neither in the table nor the default (0, where every attribute starts) raises AttrLogError
// `message` and leaves the value unchanged.
template <class E, size_t N>
void enumFromLog(AttrLogReader& in, E* value, const EnumText<E> (&table)[N], const char* message) {
  const E read = static_cast<E>(in.integer<std::underlying_type_t<E>>());
  if (read == E{}) {
    *value = read;
    return;
  }
  for (const auto& row : table) {
    if (row.value == read) {
      *value = read;
      return;
    }
  }
  throw AttrLogError(message);
}

}  // namespace Mox

// Generated entities describe themselves to the attribute log.
#include <Mox/AttrLogClass.h>
