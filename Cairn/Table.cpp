// The table's segment, from offset 0 (every field fixed-width, every section 64-aligned,
// so 32-bit and 64-bit processes share one layout):
//
//   header   128 bytes: magic, layout version, key and value sizes, capacity, slot count
//            and size, ring size, header checksum, writer pid, live and tombstone counts,
//            the active slot array, the change counter
//   journal  the image of the slot being written, before the write (seqlock-versioned)
//   ring     ringSize records {stamp, key}: change n lives in record n % ringSize with
//            stamp 2n+2 once complete (odd while written)
//   arrays   two slot arrays of slotCount slots {version, checksum and state, key, value};
//            one is active, the other is where the writer rebuilds without tombstones
//
// Slots are found by linear probing from the key's hash. A deletion leaves a tombstone
// (emptied at once when the next slot is empty), so entries never move under a reader;
// when tombstones pile up the writer copies the live entries into the other array and
// switches arrays, which readers notice and retry.
#include <Cairn/Table.h>
#include <Cairn/Wake.h>
#include <Mox/Exception.h>

#include <alloca.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace Cairn {

namespace {

constexpr U64 kMagic = 0x314e524941434b4bULL;  // "KKCAIRN1"
constexpr U32 kLayoutVersion = 1;
constexpr U32 kInitLockByte = 1;    // held while the header is written or checked
constexpr U32 kWriterLockByte = 0;  // held by the writer for as long as it lives
constexpr U32 kMaxAttempts = 1u << 20;

enum SlotState : U32 { kEmpty = 0, kLive = 1, kTombstone = 2 };

constexpr U64 align(U64 value, U64 to) {
  return (value + to - 1) / to * to;
}

U32 powerOfTwoAtLeast(U64 value) {
  U64 result = 8;
  while (result < value) result *= 2;
  return static_cast<U32>(result);
}

U64 mix(U64 h) {
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

// A cheap running sum over 8-byte words, strong enough to catch damaged bytes.
U64 sumWords(const void* data, size_t size, U64 h) {
  const U8* bytes = static_cast<const U8*>(data);
  for (; size;) {
    U64 word = 0;
    const size_t take = size < 8 ? size : 8;
    std::memcpy(&word, bytes, take);
    h = (h ^ word) * 0x9e3779b97f4a7c15ULL;
    h ^= h >> 29;
    bytes += take;
    size -= take;
  }
  return h ^ (h >> 32);
}

struct SlotHead {
  std::atomic<U32> version;  // odd while the writer changes the slot
  U32 sealed;                // the checksum's upper 30 bits, the state in the low 2 bits
  U32 state() const { return sealed & 3; }
};
constexpr U32 kSlotHeadSize = sizeof(SlotHead);
static_assert(kSlotHeadSize == 8);

U32 seal(U32 state, U32 checksum) {
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
static_assert(sizeof(RecordHead) == 8 && std::atomic<U64>::is_always_lock_free);

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

CorruptionHandler& handler() {
  static CorruptionHandler current;
  return current;
}

}  // namespace

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

  U32 keyOffset() const { return kSlotHeadSize; }
  U32 valueOffset() const { return kSlotHeadSize + static_cast<U32>(align(keySize, 8)); }
  U64 journalOffset() const { return 128; }
  U64 ringOffset() const { return journalOffset() + align(sizeof(JournalHead) + slotSize, 64); }
  U64 arrayOffset(U32 array) const {
    const U64 first = ringOffset() + align(U64(ringSize) * recordSize, 64);
    return first + array * align(U64(slotCount) * slotSize, 64);
  }
  U64 totalSize() const { return arrayOffset(2); }
  U32 home(const void* key) const {
    return static_cast<U32>(hashBytes(key, keySize, 0)) & (slotCount - 1);
  }
  U32 checksum(U32 state, const void* key, const void* value) const {
    return static_cast<U32>(sumWords(value, valueSize, sumWords(key, keySize, state + 0x51ed)));
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

namespace {

TableFixed expectedHeader(const TableShape& shape) {
  TableFixed header{};
  header.magic = kMagic;
  header.layoutVersion = kLayoutVersion;
  header.keySize = shape.keySize;
  header.valueSize = shape.valueSize;
  header.capacity = shape.capacity;
  // At most 3/4 of the slots are ever live, so probes stay short at full capacity.
  header.slotCount = powerOfTwoAtLeast(U64(shape.capacity) * 4 / 3 + 1);
  header.slotSize =
      static_cast<U32>(align(kSlotHeadSize + align(shape.keySize, 8) + shape.valueSize, 8));
  header.ringSize = powerOfTwoAtLeast(std::min<U64>(std::max<U64>(shape.capacity, 64), 4096));
  header.recordSize = static_cast<U32>(align(sizeof(RecordHead) + shape.keySize, 8));
  header.headerCheck = header.fixedFieldsCheck();
  return header;
}

// Why `actual` is not the header expected, or empty when it is.
std::string headerMismatch(const TableFixed& actual, const TableFixed& expected) {
  if (actual.magic != kMagic) return "bad magic";
  if (actual.layoutVersion != kLayoutVersion) return "layout version mismatch";
  if (actual.headerCheck != actual.fixedFieldsCheck()) return "header checksum mismatch";
  if (actual.keySize != expected.keySize || actual.valueSize != expected.valueSize) {
    return "key or value size mismatch";
  }
  if (actual.capacity != expected.capacity) return "capacity mismatch";
  if (std::memcmp(&actual, &expected, offsetof(TableFixed, headerCheck)) != 0) {
    return "layout mismatch";
  }
  return "";
}

// Copies slot `index` of `array` consistently into `image`: the slot itself when no
// write is in progress, else the journaled image from before that write. False when the
// writer moved on during the copy (the caller retries).
bool readSlot(const TableHeader& header, U32 array, U32 index, U8* image) {
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

// Marks a versioned word odd (being written) and returns the even value that ends the
// write. A word a killed writer left odd stays odd, so its parity never inverts.
U32 beginWrite(std::atomic<U32>& word) {
  const U32 odd = word.load(std::memory_order_relaxed) | 1;
  word.store(odd, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  return odd + 1;
}

enum class Probe { found, absent, next, retry, damaged };

}  // namespace

void corruptionHandlerIs(CorruptionHandler next) {
  std::lock_guard<std::mutex> lock(handlerMutex());
  handler() = std::move(next);
}

void reportCorruption(const std::string& table, const std::string& what) {
  CorruptionHandler current;
  {
    std::lock_guard<std::mutex> lock(handlerMutex());
    current = handler();
  }
  if (current) return current(Corruption{table, what});
  std::fprintf(stderr, "Cairn: table %s is corrupt: %s\n", table.c_str(), what.c_str());
}

// --- writer ---

TableWriterCore::TableWriterCore(const std::string& name, const TableShape& shape,
                                 const Access& access)
    : name_(name) {
  if (shape.capacity == 0 || shape.capacity > (1u << 30)) {
    throw Mox::RangeException("table " + name + ": capacity out of range");
  }
  mapping_.openWritable(tableObject(name), true, access);
  if (!mapping_.tryLock(kWriterLockByte, true)) {
    U32 pid = 0;
    if (mapping_.objectSize() >= sizeof(TableHeader) &&
        pread(mapping_.descriptor(), &pid, sizeof pid, offsetof(TableHeader, writerPid)) !=
            sizeof pid) {
      pid = 0;
    }
    throw Mox::Exception("table " + name + " already has a writer (process " + std::to_string(pid) +
                         ")");
  }
  mapping_.lockWait(kInitLockByte, true);
  initialize(shape);
  mapping_.unlock(kInitLockByte);
  wake_ = std::make_unique<WakeSender>(name, access);
  recover();
}

TableWriterCore::~TableWriterCore() {
  if (header_) header_->writerPid = 0;
}

void TableWriterCore::initialize(const TableShape& shape) {
  const TableFixed expected = expectedHeader(shape);
  const bool fresh = mapping_.objectSize() == 0;
  if (fresh) mapping_.ensureSize(expected.totalSize());
  if (mapping_.objectSize() < sizeof(TableHeader)) {
    throw Mox::Exception("table " + name_ + " is not a table");
  }
  auto* header = static_cast<TableHeader*>(mapping_.map(expected.totalSize()));
  if (fresh) {
    std::memcpy(&header->f, &expected, sizeof expected);
  } else if (std::string why = headerMismatch(header->f, expected); !why.empty()) {
    throw Mox::Exception("table " + name_ + " exists with another layout: " + why);
  } else if (mapping_.objectSize() < expected.totalSize()) {
    throw Mox::Exception("table " + name_ + " is truncated");
  }
  header_ = header;
  header_->writerPid = static_cast<U32>(getpid());
}

// A writer that died mid-write left its last slot odd: put the journaled image back, and
// publish the keys involved again in case the change was written but never announced.
void TableWriterCore::recover() {
  const U32 array = header_->activeArray();
  JournalHead* journal = header_->journal();
  const U8* image = header_->journalImage();
  if (!(journal->sequence.load() & 1) && journal->array == array &&
      journal->slot < header_->f.slotCount) {
    auto* slot = reinterpret_cast<U8*>(header_->slot(array, journal->slot));
    auto* head = reinterpret_cast<SlotHead*>(slot);
    const U32 version = head->version.load();
    if (version & 1) {
      std::memcpy(slot + sizeof(SlotHead::version), image + sizeof(SlotHead::version),
                  header_->f.slotSize - sizeof(SlotHead::version));
      head->version.store(version + 1, std::memory_order_release);
    }
    for (const U8* candidate : {image, static_cast<const U8*>(slot)}) {
      if (reinterpret_cast<const SlotHead*>(candidate)->state() != kEmpty) {
        publish(candidate + header_->f.keyOffset());
      }
    }
  }
  U32 live = 0, tombstones = 0;
  for (U32 index = 0; index < header_->f.slotCount; ++index) {
    const U32 state = header_->slot(array, index)->state();
    live += state == kLive;
    tombstones += state == kTombstone;
  }
  header_->size.store(live);
  header_->tombstones.store(tombstones);
}

TableWriterCore::Found TableWriterCore::locate(const void* key) const {
  const U32 mask = header_->f.slotCount - 1;
  const U32 array = header_->activeArray();
  U32 reusable = header_->f.slotCount;
  U32 index = header_->f.home(key);
  for (U32 n = 0; n < header_->f.slotCount; ++n, index = (index + 1) & mask) {
    const auto* slot = reinterpret_cast<const U8*>(header_->slot(array, index));
    const U32 state = reinterpret_cast<const SlotHead*>(slot)->state();
    if (state == kEmpty) return {reusable != header_->f.slotCount ? reusable : index, false};
    if (state == kTombstone) {
      if (reusable == header_->f.slotCount) reusable = index;
    } else if (std::memcmp(slot + header_->f.keyOffset(), key, header_->f.keySize) == 0) {
      return {index, true};
    }
  }
  return {reusable, false};
}

void TableWriterCore::writeSlot(U32 index, U32 state, const void* key, const void* value) {
  const U32 array = header_->activeArray();
  auto* slot = reinterpret_cast<U8*>(header_->slot(array, index));
  auto* head = reinterpret_cast<SlotHead*>(slot);
  // Journal the slot as it is, so a reader that meets it mid-write (or after we die) has
  // the previous image to read instead of waiting.
  JournalHead* journal = header_->journal();
  const U32 journaled = beginWrite(journal->sequence);
  journal->array = array;
  journal->slot = index;
  std::memcpy(header_->journalImage(), slot, header_->f.slotSize);
  journal->sequence.store(journaled, std::memory_order_release);

  const U32 written = beginWrite(head->version);
  std::memmove(slot + header_->f.keyOffset(), key, header_->f.keySize);
  if (value) {
    std::memcpy(slot + header_->f.valueOffset(), value, header_->f.valueSize);
  } else {
    std::memset(slot + header_->f.valueOffset(), 0, header_->f.valueSize);
  }
  const TableFixed& f = header_->f;
  head->sealed = seal(state, f.checksum(state, slot + f.keyOffset(), slot + f.valueOffset()));
  head->version.store(written, std::memory_order_release);
}

void TableWriterCore::publish(const void* key) {
  const U64 change = header_->changes.load(std::memory_order_relaxed);
  RecordHead* record = header_->record(change);
  record->stamp.store(2 * change + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(reinterpret_cast<U8*>(record) + sizeof(RecordHead), key, header_->f.keySize);
  record->stamp.store(2 * change + 2, std::memory_order_release);
  header_->changes.store(change + 1);
  if (wake_) wake_->wake();
}

bool TableWriterCore::find(const void* key, void* value) const {
  const Found found = locate(key);
  if (!found.present) return false;
  const auto* slot = reinterpret_cast<const U8*>(header_->slot(header_->activeArray(), found.slot));
  std::memcpy(value, slot + header_->f.valueOffset(), header_->f.valueSize);
  return true;
}

void TableWriterCore::set(const void* key, const void* value) {
  const Found found = locate(key);
  if (found.present) {
    const auto* slot =
        reinterpret_cast<const U8*>(header_->slot(header_->activeArray(), found.slot));
    if (std::memcmp(slot + header_->f.valueOffset(), value, header_->f.valueSize) == 0) return;
  } else if (header_->size.load() >= header_->f.capacity) {
    throw Mox::MemoryLimitExceededException("table full");
  }
  const bool reusesTombstone =
      !found.present && header_->slot(header_->activeArray(), found.slot)->state() == kTombstone;
  writeSlot(found.slot, kLive, key, value);
  if (!found.present) header_->size.fetch_add(1);
  if (reusesTombstone) header_->tombstones.fetch_sub(1);
  publish(key);
}

// A slot whose successor is empty ends every probe chain through it, so it (and the
// tombstones just before it) can become empty; otherwise it must stay a tombstone.
void TableWriterCore::removeAt(U32 index) {
  const U32 mask = header_->f.slotCount - 1;
  const U32 array = header_->activeArray();
  const auto* slot = reinterpret_cast<const U8*>(header_->slot(array, index));
  const void* key = slot + header_->f.keyOffset();
  if (header_->slot(array, (index + 1) & mask)->state() != kEmpty) {
    writeSlot(index, kTombstone, key, nullptr);
    header_->tombstones.fetch_add(1);
    return;
  }
  writeSlot(index, kEmpty, key, nullptr);
  for (U32 before = (index - 1) & mask; header_->slot(array, before)->state() == kTombstone;
       before = (before - 1) & mask) {
    const auto* dead = reinterpret_cast<const U8*>(header_->slot(array, before));
    writeSlot(before, kEmpty, dead + header_->f.keyOffset(), nullptr);
    header_->tombstones.fetch_sub(1);
  }
}

bool TableWriterCore::del(const void* key) {
  const Found found = locate(key);
  if (!found.present) return false;
  removeAt(found.slot);
  header_->size.fetch_sub(1);
  publish(key);
  const U32 free = header_->f.slotCount - header_->size.load();
  if (header_->tombstones.load() * 4 > free) rebuild();
  return true;
}

// Copies the live entries into the other array, free of tombstones, and switches to it.
// Readers still in the old array see the switch and retry; a crash before the switch
// leaves the old array in force.
void TableWriterCore::rebuild() {
  const U32 from = header_->activeArray();
  const U32 to = from ^ 1;
  const U32 mask = header_->f.slotCount - 1;
  for (U32 index = 0; index < header_->f.slotCount; ++index) {
    SlotHead* head = header_->slot(to, index);
    const U32 done = beginWrite(head->version);
    std::memset(reinterpret_cast<U8*>(head) + sizeof(SlotHead::version), 0,
                header_->f.slotSize - sizeof(SlotHead::version));
    head->version.store(done, std::memory_order_release);
  }
  for (U32 index = 0; index < header_->f.slotCount; ++index) {
    const auto* source = reinterpret_cast<const U8*>(header_->slot(from, index));
    if (reinterpret_cast<const SlotHead*>(source)->state() != kLive) continue;
    U32 target = header_->f.home(source + header_->f.keyOffset());
    while (header_->slot(to, target)->state() != kEmpty) target = (target + 1) & mask;
    SlotHead* head = header_->slot(to, target);
    const U32 done = beginWrite(head->version);
    std::memcpy(reinterpret_cast<U8*>(head) + sizeof(SlotHead::version),
                source + sizeof(SlotHead::version),
                header_->f.slotSize - sizeof(SlotHead::version));
    head->version.store(done, std::memory_order_release);
  }
  header_->active.fetch_add(1);
  header_->tombstones.store(0);
}

void TableWriterCore::clear() {
  std::vector<U8> keys;
  forEach([&](const void* key, const void*) {
    keys.insert(keys.end(), static_cast<const U8*>(key),
                static_cast<const U8*>(key) + header_->f.keySize);
  });
  for (size_t offset = 0; offset < keys.size(); offset += header_->f.keySize) del(&keys[offset]);
}

void TableWriterCore::forEach(
    const std::function<void(const void* key, const void* value)>& fn) const {
  const U32 array = header_->activeArray();
  for (U32 index = 0; index < header_->f.slotCount; ++index) {
    const auto* slot = reinterpret_cast<const U8*>(header_->slot(array, index));
    if (reinterpret_cast<const SlotHead*>(slot)->state() != kLive) continue;
    fn(slot + header_->f.keyOffset(), slot + header_->f.valueOffset());
  }
}

U32 TableWriterCore::size() const {
  return header_->size.load();
}

// --- reader ---

TableReaderCore::TableReaderCore(const std::string& name, const TableShape& shape)
    : name_(name), shape_(shape) {
  mapping_.openReadOnly(tableObject(name));
  const TableFixed expected = expectedHeader(shape);
  mapping_.lockWait(kInitLockByte, false);
  std::string why;
  if (mapping_.objectSize() < expected.totalSize()) {
    why = "segment smaller than its layout";
    if (mapping_.objectSize() >= sizeof(TableHeader)) {
      mapping_.map(sizeof(TableHeader));
      why = headerMismatch(static_cast<const TableHeader*>(mapping_.address())->f, expected);
      if (why.empty()) why = "segment smaller than its layout";
    }
  } else {
    const auto* header = static_cast<const TableHeader*>(mapping_.map(expected.totalSize()));
    why = headerMismatch(header->f, expected);
    if (why.empty()) header_ = header;
  }
  mapping_.unlock(kInitLockByte);
  if (!why.empty()) reportCorruption(name, why);
}

TableReaderCore::~TableReaderCore() = default;

namespace {

// What a look-up makes of one slot. `version` is the slot's version word when the bytes
// are read in place (the copy is then valid only if it still holds), null for an image.
inline Probe examine(const TableFixed& f, const U8* slot, const void* key, void* value,
                     const std::atomic<U32>* version, U32 expected) {
  const SlotHead* head = reinterpret_cast<const SlotHead*>(slot);
  const U32 state = head->state();
  if (state == kEmpty) return Probe::absent;
  if (state != kLive || !sameBytes(slot + f.keyOffset(), key, f.keySize)) return Probe::next;
  copyBytes(value, slot + f.valueOffset(), f.valueSize);
  const U32 sealed = head->sealed;
  std::atomic_thread_fence(std::memory_order_acquire);
  if (version && version->load(std::memory_order_relaxed) != expected) return Probe::retry;
  return sealed == seal(kLive, f.checksum(kLive, key, value)) ? Probe::found : Probe::damaged;
}

}  // namespace

bool TableReaderCore::find(const void* key, void* value) const {
  if (!header_) return false;
  const TableHeader& header = *header_;
  const TableFixed& f = header.f;
  const U32 mask = f.slotCount - 1;
  const U32 home = f.home(key);
  U8* image = nullptr;
  for (U32 attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const U32 generation = header.active.load(std::memory_order_acquire);
    const U32 array = generation & 1;
    const U8* slots = reinterpret_cast<const U8*>(header.slot(array, 0));
    Probe probe = Probe::absent;
    U32 index = home;
    for (U32 n = 0; n < f.slotCount; ++n, index = (index + 1) & mask) {
      ++probes_;
      const auto* slot = reinterpret_cast<const SlotHead*>(slots + U64(index) * f.slotSize);
      const U32 version = slot->version.load(std::memory_order_acquire);
      if (!(version & 1)) {
        probe = examine(f, reinterpret_cast<const U8*>(slot), key, value, &slot->version, version);
      } else {
        // Mid-write: the journaled image from before the write stands in for the slot.
        if (!image) image = static_cast<U8*>(alloca(f.slotSize));
        probe = readSlot(header, array, index, image) ? examine(f, image, key, value, nullptr, 0)
                                                      : Probe::retry;
      }
      if (probe != Probe::next) break;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (probe == Probe::retry || header.active.load(std::memory_order_relaxed) != generation) {
      continue;
    }
    if (probe == Probe::damaged) {
      reportCorruption(name_, "entry in slot " + std::to_string(index) + " fails its check");
    }
    return probe == Probe::found;
  }
  reportCorruption(name_, "entry never read consistently");
  return false;
}

void TableReaderCore::forEach(
    const std::function<void(const void* key, const void* value)>& fn) const {
  if (!header_) return;
  const TableHeader& header = *header_;
  std::vector<U8> image(header.f.slotSize);
  std::vector<U8> entries;  // complete slot images of the walk, delivered once it held
  for (U32 attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const U32 generation = header.active.load(std::memory_order_acquire);
    entries.clear();
    for (U32 index = 0; index < header.f.slotCount; ++index) {
      U32 tries = 0;
      while (!readSlot(header, generation & 1, index, image.data()) && ++tries < kMaxAttempts) {
      }
      const auto* head = reinterpret_cast<const SlotHead*>(image.data());
      if (tries == kMaxAttempts || head->state() != kLive) continue;
      if (head->sealed != seal(kLive, header.f.checksum(image.data()))) {
        reportCorruption(name_, "entry in slot " + std::to_string(index) + " fails its check");
        continue;
      }
      entries.insert(entries.end(), image.begin(), image.end());
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (header.active.load(std::memory_order_relaxed) == generation) break;
  }
  for (size_t offset = 0; offset < entries.size(); offset += header.f.slotSize) {
    fn(&entries[offset] + header.f.keyOffset(), &entries[offset] + header.f.valueOffset());
  }
}

U32 TableReaderCore::size() const {
  return header_ ? header_->size.load() : 0;
}

U64 TableReaderCore::changeCount() const {
  return header_ ? header_->changes.load() : 0;
}

bool TableReaderCore::changesSince(U64& cursor, std::vector<U8>& keys) const {
  if (!header_) return true;
  const U64 head = header_->changes.load();
  const U64 from = cursor;
  cursor = head;
  if (from > head || head - from > header_->f.ringSize) return false;
  const size_t keySize = header_->f.keySize;
  for (U64 change = from; change < head; ++change) {
    const RecordHead* record = header_->record(change);
    const U64 stamp = record->stamp.load(std::memory_order_acquire);
    if (stamp != 2 * change + 2) return false;
    const U8* key = reinterpret_cast<const U8*>(record) + sizeof(RecordHead);
    keys.insert(keys.end(), key, key + keySize);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (record->stamp.load(std::memory_order_relaxed) != stamp) return false;
  }
  return true;
}

// --- inspection ---

TableInfo tableInfo(const std::string& name) {
  TableInfo info;
  info.name = name;
  Mapping mapping;
  mapping.openReadOnly(tableObject(name));
  info.bytes = mapping.objectSize();
  if (info.bytes < sizeof(TableHeader)) return info;
  const auto* header = static_cast<const TableHeader*>(mapping.map(sizeof(TableHeader)));
  const TableFixed& fixed = header->f;
  info.valid = fixed.magic == kMagic && fixed.layoutVersion == kLayoutVersion &&
               fixed.headerCheck == fixed.fixedFieldsCheck();
  if (!info.valid) return info;
  info.keySize = fixed.keySize;
  info.valueSize = fixed.valueSize;
  info.capacity = fixed.capacity;
  info.size = header->size.load();
  if (mapping.lockedExclusively(kWriterLockByte)) info.writerPid = header->writerPid;
  return info;
}

bool removeTable(const std::string& name) {
  const bool removed = shm_unlink(("/" + tableObject(name)).c_str()) == 0;
  shm_unlink(("/" + registryObject(name)).c_str());
  for (U32 slot = 0; slot < kMaxWatchers; ++slot) unlink(wakeSocketPath(name, slot).c_str());
  return removed;
}

}  // namespace Cairn
