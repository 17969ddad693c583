#pragma once
// The segment of a table, as the writer and readers share it. Readers' look-ups are here,
// inline, so a typed reader's key and value sizes are constants in its code. From offset 0
// (every field fixed-width, every section 64-aligned, so 32-bit and 64-bit processes share
// one layout):
//
//   header   128 bytes: magic, layout version, key and value sizes, capacity, slot count
//            and size, ring size, header checksum, writer pid, live and tombstone counts,
//            the active slot array, the change counter
//   journal  the image of the slot being written, before the write (seqlock-versioned)
//   ring     ringSize records {stamp, key}: change n lives in record n % ringSize with
//            stamp 2n+2 once complete (odd while written), plus notifiedStamp when the
//            writer announced the key without changing it
//   arrays   two slot arrays of slotCount slots {version, checksum and state, key, value};
//            one is active, the other is where the writer rebuilds without tombstones
//
// Slots are found by linear probing from the key's hash. A deletion leaves a tombstone
// (emptied at once when the next slot is empty), so entries never move under a reader;
// when tombstones pile up the writer copies the live entries into the other array and
// switches arrays, which readers notice and retry.

#include <Mox/Types.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>
#include <string>

namespace Cairn {

void reportCorruption(const std::string& table, const std::string& what);

namespace layout {

using Mox::U32;
using Mox::U64;
using Mox::U8;

constexpr U64 tableMagic = 0x314e524941434b4bULL;  // "KKCAIRN1"
constexpr U32 tableLayoutVersion = 2;
constexpr U32 maxReadAttempts = 1u << 20;

enum SlotState : U32 { slotEmpty = 0, slotLive = 1, slotTombstone = 2 };

constexpr U64 align(U64 value, U64 to) {
  return (value + to - 1) / to * to;
}

inline U64 mix(U64 h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  return h ^ (h >> 33);
}

// Keys and values of 4 and 8 bytes are the common case: compared and copied as one word.
inline bool sameBytes(const void* a, const void* b, size_t size) {
  if (size == 8) {
    U64 x, y;
    std::memcpy(&x, a, 8);
    std::memcpy(&y, b, 8);
    return x == y;
  }
  if (size == 4) {
    U32 x, y;
    std::memcpy(&x, a, 4);
    std::memcpy(&y, b, 4);
    return x == y;
  }
  return std::memcmp(a, b, size) == 0;
}

inline void copyBytes(void* to, const void* from, size_t size) {
  if (size == 8) return std::memcpy(to, from, 8), void();
  if (size == 16) return std::memcpy(to, from, 16), void();
  std::memcpy(to, from, size);
}

inline U64 hashBytes(const void* data, size_t size, U64 seed) {
  const U8* bytes = static_cast<const U8*>(data);
  if (size == 8) {
    U64 word;
    std::memcpy(&word, bytes, 8);
    return mix(seed ^ (8 * 0x9e3779b97f4a7c15ULL) ^ word);
  }
  U64 h = seed ^ (size * 0x9e3779b97f4a7c15ULL);
  for (; size >= 8; bytes += 8, size -= 8) {
    U64 word;
    std::memcpy(&word, bytes, 8);
    h = mix(h ^ word);
  }
  if (size) {
    U64 word = 0;
    std::memcpy(&word, bytes, size);
    h = mix(h ^ word);
  }
  return h;
}

// Where a key's probe starts: the top bits of a multiplicative hash, which depend on every
// bit of the key; `shift` is 64 less the log2 of the slot count. Keys of 4 and 8 bytes take
// one multiplication.
inline U32 homeSlot(const void* key, size_t keySize, U32 shift) {
  U64 h;
  if (keySize == 8) {
    std::memcpy(&h, key, 8);
    h ^= h >> 32;
  } else if (keySize == 4) {
    U32 word;
    std::memcpy(&word, key, 4);
    h = word;
  } else {
    h = hashBytes(key, keySize, 0);
  }
  return static_cast<U32>((h * 0x9e3779b97f4a7c15ULL) >> shift);
}

// A checksum over 8-byte words, strong enough to catch damaged bytes and cheap on a
// reader's look-up: the words' products do not depend on one another, so they are computed
// side by side, and the rotation makes the sum depend on where each word sits. A change to
// any one word always changes the sum (multiplying by an odd constant is a bijection).
inline U64 addWord(U64 h, U64 word) {
  return ((h << 27) | (h >> 37)) + word * 0x9e3779b97f4a7c15ULL;
}

// Whole words, then the tail zero-padded: with a constant size this unrolls to straight code.
inline U64 addWords(const void* data, size_t size, U64 h) {
  const U8* bytes = static_cast<const U8*>(data);
  for (; size >= 8; bytes += 8, size -= 8) {
    U64 word;
    std::memcpy(&word, bytes, 8);
    h = addWord(h, word);
  }
  if (size) {
    U64 word = 0;
    std::memcpy(&word, bytes, size);
    h = addWord(h, word);
  }
  return h;
}

inline U32 entryChecksum(U32 state, const void* key, U32 keySize, const void* value,
                         U32 valueSize) {
  const U64 h = addWords(value, valueSize, addWords(key, keySize, state + 0x51ed));
  return static_cast<U32>(h ^ (h >> 32));
}

struct SlotHead {
  std::atomic<U32> version;  // odd while the writer changes the slot
  U32 sealed;                // the checksum's upper 30 bits, the state in the low 2 bits
  U32 state() const { return sealed & 3; }
};
constexpr U32 slotHeadSize = sizeof(SlotHead);
static_assert(slotHeadSize == 8);

// A 64-byte cache line holds a whole number of slots of up to 64 bytes (arrays are
// 64-aligned), so a look-up's first probe touches one line.
constexpr U32 slotSizeFor(U64 keySize, U64 valueSize) {
  const U64 size = align(slotHeadSize + align(keySize, 8) + valueSize, 8);
  return static_cast<U32>(size <= 16 ? size : size <= 32 ? 32 : size <= 64 ? 64 : size);
}

inline U32 seal(U32 state, U32 checksum) {
  return (checksum & ~3u) | state;
}

struct JournalHead {
  std::atomic<U32> sequence;  // odd while the journal itself is written
  U32 array;
  U32 slot;
  U32 reserved;
};
static_assert(sizeof(JournalHead) == 16);

struct RecordHead {
  alignas(8) std::atomic<U64> stamp;
};
// Marks the record of a key announced without a change (the counter never gets near it).
constexpr U64 notifiedStamp = U64(1) << 63;
static_assert(sizeof(RecordHead) == 8 && std::atomic<U64>::is_always_lock_free);

// The fields fixed when the table is made; a copy of them is what a reader expects.
struct TableFixed {
  U64 magic;
  U32 layoutVersion;
  U32 keySize;
  U32 valueSize;
  U32 capacity;
  U32 slotCount;
  U32 slotSize;
  U32 ringSize;
  U32 recordSize;
  U32 headerCheck;
  U32 reserved;

  U32 keyOffset() const { return slotHeadSize; }
  U32 valueOffset() const { return slotHeadSize + static_cast<U32>(align(keySize, 8)); }
  U64 journalOffset() const { return 128; }
  U64 ringOffset() const { return journalOffset() + align(sizeof(JournalHead) + slotSize, 64); }
  U64 arrayOffset(U32 array) const {
    const U64 first = ringOffset() + align(U64(ringSize) * recordSize, 64);
    return first + array * align(U64(slotCount) * slotSize, 64);
  }
  U64 totalSize() const { return arrayOffset(2); }
  U32 homeShift() const { return 64 - std::countr_zero(slotCount); }
  U32 home(const void* key) const { return homeSlot(key, keySize, homeShift()); }
  U32 checksum(U32 state, const void* key, const void* value) const {
    return entryChecksum(state, key, keySize, value, valueSize);
  }
  U32 checksum(const U8* slotImage) const {
    return checksum(reinterpret_cast<const SlotHead*>(slotImage)->state(), slotImage + keyOffset(),
                    slotImage + valueOffset());
  }
  U32 fixedFieldsCheck() const {
    return static_cast<U32>(hashBytes(this, offsetof(TableFixed, headerCheck), 0x4ead));
  }
};
static_assert(sizeof(TableFixed) == 48);

struct TableHeader {
  TableFixed f;
  // Kept by the writer.
  U32 writerPid;
  std::atomic<U32> size;
  std::atomic<U32> tombstones;
  std::atomic<U32> active;  // generation; the active array is (active & 1)
  alignas(8) std::atomic<U64> changes;
  U8 padding[56];

  U8* base() const { return reinterpret_cast<U8*>(const_cast<TableHeader*>(this)); }
  JournalHead* journal() const {
    return reinterpret_cast<JournalHead*>(base() + f.journalOffset());
  }
  U8* journalImage() const { return base() + f.journalOffset() + sizeof(JournalHead); }
  SlotHead* slot(U32 array, U32 index) const {
    return reinterpret_cast<SlotHead*>(base() + f.arrayOffset(array) + U64(index) * f.slotSize);
  }
  RecordHead* record(U64 change) const {
    return reinterpret_cast<RecordHead*>(base() + f.ringOffset() +
                                         (change & (f.ringSize - 1)) * f.recordSize);
  }
  U32 activeArray() const { return active.load(std::memory_order_acquire) & 1; }
};
static_assert(sizeof(TableHeader) == 128);
static_assert(offsetof(TableHeader, changes) == 64);
static_assert(offsetof(TableHeader, writerPid) == 48);

// Copies slot `index` of `array` consistently into `image`: the slot itself when no
// write is in progress, else the journaled image from before that write. False when the
// writer moved on during the copy (the caller retries).
inline bool readSlot(const TableHeader& header, U32 array, U32 index, U8* image) {
  const SlotHead* slot = header.slot(array, index);
  const U32 version = slot->version.load(std::memory_order_acquire);
  if (!(version & 1)) {
    std::memcpy(image, slot, header.f.slotSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    return slot->version.load(std::memory_order_relaxed) == version;
  }
  const JournalHead* journal = header.journal();
  const U32 sequence = journal->sequence.load(std::memory_order_acquire);
  if (sequence & 1) return false;
  const U32 journalArray = journal->array;
  const U32 journalSlot = journal->slot;
  std::memcpy(image, header.journalImage(), header.f.slotSize);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (journal->sequence.load(std::memory_order_relaxed) != sequence) return false;
  const U32 imageVersion = reinterpret_cast<const SlotHead*>(image)->version.load();
  return journalArray == array && journalSlot == index && imageVersion + 1 == version;
}

enum class Probe { found, absent, next, retry, damaged };

// The slot's journaled image from before the write in progress, examined instead of it.
Probe examineJournaled(const TableHeader& header, U32 array, U32 index, const void* key,
                       void* value);

// What a look-up makes of one slot of a table of `keySize`-byte keys and `valueSize`-byte
// values. `version` is the slot's version word when the bytes are read in place (the copy
// is then valid only if it still holds), null for an image.
[[gnu::always_inline]] inline Probe examine(const U8* slot, const void* key, void* value,
                                            U32 keySize, U32 valueSize,
                                            const std::atomic<U32>* version, U32 expected) {
  const SlotHead* head = reinterpret_cast<const SlotHead*>(slot);
  const U32 state = head->state();
  if (state == slotEmpty) return Probe::absent;
  if (state != slotLive || !sameBytes(slot + slotHeadSize, key, keySize)) return Probe::next;
  copyBytes(value, slot + slotHeadSize + align(keySize, 8), valueSize);
  const U32 sealed = head->sealed;
  std::atomic_thread_fence(std::memory_order_acquire);
  if (version && version->load(std::memory_order_relaxed) != expected) return Probe::retry;
  const U32 sum = entryChecksum(slotLive, key, keySize, value, valueSize);
  return sealed == seal(slotLive, sum) ? Probe::found : Probe::damaged;
}

// Out of line, so the look-up inlined into readers stays small.
[[gnu::cold, gnu::noinline]] void reportDamage(const std::string& table, const char* what);

// Where a reader finds the slots, worked out once from the header it checked.
struct SlotArrays {
  const TableHeader* header = nullptr;
  const U8* arrays[2] = {};
  U32 mask = 0;
  U32 shift = 0;

  SlotArrays() = default;
  explicit SlotArrays(const TableHeader& h)
      : header(&h),
        arrays{reinterpret_cast<const U8*>(h.slot(0, 0)),
               reinterpret_cast<const U8*>(h.slot(1, 0))},
        mask(h.f.slotCount - 1),
        shift(h.f.homeShift()) {}
};

// A reader's look-up: copies the value of `key` into `value`, false when absent or damaged
// (damage goes to the corruption handler). Inlined with constant sizes by typed readers.
[[gnu::always_inline]] inline bool lookUp(const SlotArrays& table, const std::string& name,
                                          const void* key, void* value, U32 keySize, U32 valueSize,
                                          U64& probes) {
  const TableHeader& header = *table.header;
  const U32 slotSize = slotSizeFor(keySize, valueSize);
  const U32 home = homeSlot(key, keySize, table.shift);
  U64 examined = 0;
  for (U32 attempt = 0; attempt < maxReadAttempts; ++attempt) {
    const U32 generation = header.active.load(std::memory_order_acquire);
    const U8* slots = table.arrays[generation & 1];
    Probe probe = Probe::absent;
    U32 index = home;
    for (U32 n = 0; n <= table.mask; ++n, index = (index + 1) & table.mask) {
      ++examined;
      const auto* slot = reinterpret_cast<const SlotHead*>(slots + U64(index) * slotSize);
      const U32 version = slot->version.load(std::memory_order_acquire);
      probe = (version & 1) ? examineJournaled(header, generation & 1, index, key, value)
                            : examine(reinterpret_cast<const U8*>(slot), key, value, keySize,
                                      valueSize, &slot->version, version);
      if (probe != Probe::next) break;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (probe == Probe::retry || header.active.load(std::memory_order_relaxed) != generation) {
      continue;
    }
    probes += examined;
    if (probe == Probe::found) [[likely]]
      return true;
    if (probe == Probe::damaged) reportDamage(name, "entry fails its check");
    return false;
  }
  probes += examined;
  reportDamage(name, "entry never read consistently");
  return false;
}

}  // namespace layout
}  // namespace Cairn
