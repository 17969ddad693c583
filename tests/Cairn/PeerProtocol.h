#pragma once
// What the table tests and their peer processes agree on: the entry they store, which
// carries its own check so a torn read shows, and the random operation sequence a writer
// plays (the test replays it on a std::map to know the final table).

#include <Mox/Types.h>

#include <cstring>
#include <map>
#include <random>

namespace CairnTest {

using Mox::U32;
using Mox::U64;

constexpr U32 kSentinel = 0xFFFFFFFFu;  // written last: the writer is done

// Wide enough that copying it takes many instructions, so a torn copy is likely to show.
struct Payload {
  U64 value;
  U64 words[14];
  U64 check;
};

inline U64 payloadWord(U32 key, U64 value, U64 i) {
  U64 h = (U64(key) << 32 | key) ^ ((value + i) * 0x9e3779b97f4a7c15ULL);
  h ^= h >> 31;
  return h * 0xbf58476d1ce4e5b9ULL;
}
inline Payload payload(U32 key, U64 value) {
  Payload p{value, {}, payloadWord(key, value, 14)};
  for (U64 i = 0; i < 14; ++i) p.words[i] = payloadWord(key, value, i);
  return p;
}
inline bool intact(U32 key, const Payload& p) {
  const Payload expected = payload(key, p.value);
  return std::memcmp(&expected, &p, sizeof p) == 0;
}

// One step of a writer's random sequence: set `key` to `value`, or delete it.
struct Op {
  U32 key;
  U64 value;
  bool del;
};

class OpSequence {
 public:
  OpSequence(U64 seed, U32 keySpace) : random_(seed), keys_(0, keySpace - 1) {}
  Op next() {
    const U32 key = keys_(random_);
    const U64 roll = random_();
    return {key, roll >> 8, roll % 4 == 0};  // a quarter deletes
  }

 private:
  std::mt19937_64 random_;
  std::uniform_int_distribution<U32> keys_;
};

// Plays the next `count` steps: set(key, value) or del(key).
template <class Set, class Del>
void play(OpSequence& sequence, U64 count, Set&& set, Del&& del) {
  for (U64 i = 0; i < count; ++i) {
    const Op op = sequence.next();
    op.del ? del(op.key) : set(op.key, op.value);
  }
}

// The final table a sequence leaves, computed without the table.
inline std::map<U32, U64> replay(U64 seed, U32 keySpace, U32 ops) {
  std::map<U32, U64> table;
  OpSequence sequence(seed, keySpace);
  play(
      sequence, ops, [&](U32 key, U64 value) { table[key] = value; },
      [&](U32 key) { table.erase(key); });
  table[kSentinel] = ops;
  return table;
}

}  // namespace CairnTest
