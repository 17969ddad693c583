// The table's writer, its readers' slower paths and inspection; the layout and the
// readers' look-up are in TableLayout.h.
#include <Cairn/Table.h>
#include <Cairn/TableLayout.h>
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

using namespace layout;

namespace {

constexpr U32 initLockByte = 1;    // held while the header is written or checked
constexpr U32 writerLockByte = 0;  // held by the writer for as long as it lives

U32 powerOfTwoAtLeast(U64 value) {
  U64 result = 8;
  while (result < value) result *= 2;
  return static_cast<U32>(result);
}

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

CorruptionHandler& handler() {
  static CorruptionHandler current;
  return current;
}

}  // namespace

namespace {

TableFixed expectedHeader(const TableShape& shape) {
  TableFixed header{};
  header.magic = tableMagic;
  header.layoutVersion = tableLayoutVersion;
  header.keySize = shape.keySize;
  header.valueSize = shape.valueSize;
  header.capacity = shape.capacity;
  // At most 3/4 of the slots are ever live, so probes stay short at full capacity.
  header.slotCount = powerOfTwoAtLeast(U64(shape.capacity) * 4 / 3 + 1);
  header.slotSize = slotSizeFor(shape.keySize, shape.valueSize);
  header.ringSize = powerOfTwoAtLeast(std::min<U64>(std::max<U64>(shape.capacity, 64), 4096));
  header.recordSize = static_cast<U32>(align(sizeof(RecordHead) + shape.keySize, 8));
  header.headerCheck = header.fixedFieldsCheck();
  return header;
}

// Why `actual` is not the header expected, or empty when it is.
std::string headerMismatch(const TableFixed& actual, const TableFixed& expected) {
  if (actual.magic != tableMagic) return "bad magic";
  if (actual.layoutVersion != tableLayoutVersion) return "layout version mismatch";
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

// Marks a versioned word odd (being written) and returns the even value that ends the
// write. A word a killed writer left odd stays odd, so its parity never inverts.
U32 beginWrite(std::atomic<U32>& word) {
  const U32 odd = word.load(std::memory_order_relaxed) | 1;
  word.store(odd, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  return odd + 1;
}

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
  if (!mapping_.tryLock(writerLockByte, true)) {
    U32 pid = 0;
    if (mapping_.objectSize() >= sizeof(TableHeader) &&
        pread(mapping_.descriptor(), &pid, sizeof pid, offsetof(TableHeader, writerPid)) !=
            sizeof pid) {
      pid = 0;
    }
    throw Mox::Exception("table " + name + " already has a writer (process " + std::to_string(pid) +
                         ")");
  }
  mapping_.lockWait(initLockByte, true);
  initialize(shape);
  mapping_.unlock(initLockByte);
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
      if (reinterpret_cast<const SlotHead*>(candidate)->state() != slotEmpty) {
        publish(candidate + header_->f.keyOffset());
      }
    }
  }
  U32 live = 0, tombstones = 0;
  for (U32 index = 0; index < header_->f.slotCount; ++index) {
    const U32 state = header_->slot(array, index)->state();
    live += state == slotLive;
    tombstones += state == slotTombstone;
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
    if (state == slotEmpty) return {reusable != header_->f.slotCount ? reusable : index, false};
    if (state == slotTombstone) {
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

void TableWriterCore::publish(const void* key, bool notified) {
  const U64 change = header_->changes.load(std::memory_order_relaxed);
  RecordHead* record = header_->record(change);
  record->stamp.store(2 * change + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(reinterpret_cast<U8*>(record) + sizeof(RecordHead), key, header_->f.keySize);
  record->stamp.store((2 * change + 2) | (notified ? notifiedStamp : 0), std::memory_order_release);
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
      !found.present && header_->slot(header_->activeArray(), found.slot)->state() == slotTombstone;
  writeSlot(found.slot, slotLive, key, value);
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
  if (header_->slot(array, (index + 1) & mask)->state() != slotEmpty) {
    writeSlot(index, slotTombstone, key, nullptr);
    header_->tombstones.fetch_add(1);
    return;
  }
  writeSlot(index, slotEmpty, key, nullptr);
  for (U32 before = (index - 1) & mask; header_->slot(array, before)->state() == slotTombstone;
       before = (before - 1) & mask) {
    const auto* dead = reinterpret_cast<const U8*>(header_->slot(array, before));
    writeSlot(before, slotEmpty, dead + header_->f.keyOffset(), nullptr);
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
    if (reinterpret_cast<const SlotHead*>(source)->state() != slotLive) continue;
    U32 target = header_->f.home(source + header_->f.keyOffset());
    while (header_->slot(to, target)->state() != slotEmpty) target = (target + 1) & mask;
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
    if (reinterpret_cast<const SlotHead*>(slot)->state() != slotLive) continue;
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
  mapping_.lockWait(initLockByte, false);
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
    if (why.empty()) {
      header_ = header;
      slots_ = SlotArrays(*header);
    }
  }
  mapping_.unlock(initLockByte);
  if (!why.empty()) reportCorruption(name, why);
}

TableReaderCore::~TableReaderCore() = default;

namespace layout {

void reportDamage(const std::string& table, const char* what) {
  reportCorruption(table, what);
}

Probe examineJournaled(const TableHeader& header, U32 array, U32 index, const void* key,
                       void* value) {
  U8* image = static_cast<U8*>(alloca(header.f.slotSize));
  if (!readSlot(header, array, index, image)) return Probe::retry;
  return examine(image, key, value, header.f.keySize, header.f.valueSize, nullptr, 0);
}

}  // namespace layout

bool TableReaderCore::find(const void* key, void* value) const {
  return header_ && lookUp(slots_, name_, key, value, shape_.keySize, shape_.valueSize, probes_);
}

void TableReaderCore::forEach(
    const std::function<void(const void* key, const void* value)>& fn) const {
  if (!header_) return;
  const TableHeader& header = *header_;
  std::vector<U8> image(header.f.slotSize);
  std::vector<U8> entries;  // complete slot images of the walk, delivered once it held
  for (U32 attempt = 0; attempt < maxReadAttempts; ++attempt) {
    const U32 generation = header.active.load(std::memory_order_acquire);
    entries.clear();
    for (U32 index = 0; index < header.f.slotCount; ++index) {
      U32 tries = 0;
      while (!readSlot(header, generation & 1, index, image.data()) && ++tries < maxReadAttempts) {
      }
      const auto* head = reinterpret_cast<const SlotHead*>(image.data());
      if (tries == maxReadAttempts || head->state() != slotLive) continue;
      if (head->sealed != seal(slotLive, header.f.checksum(image.data()))) {
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

bool TableReaderCore::changesSince(U64& cursor, std::vector<U8>& keys,
                                   std::vector<bool>& notified) const {
  if (!header_) return true;
  const U64 head = header_->changes.load();
  const U64 from = cursor;
  cursor = head;
  if (from > head || head - from > header_->f.ringSize) return false;
  const size_t keySize = header_->f.keySize;
  for (U64 change = from; change < head; ++change) {
    const RecordHead* record = header_->record(change);
    const U64 stamp = record->stamp.load(std::memory_order_acquire);
    if ((stamp & ~notifiedStamp) != 2 * change + 2) return false;
    const U8* key = reinterpret_cast<const U8*>(record) + sizeof(RecordHead);
    keys.insert(keys.end(), key, key + keySize);
    notified.push_back(stamp & notifiedStamp);
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
  info.valid = fixed.magic == tableMagic && fixed.layoutVersion == tableLayoutVersion &&
               fixed.headerCheck == fixed.fixedFieldsCheck();
  if (!info.valid) return info;
  info.keySize = fixed.keySize;
  info.valueSize = fixed.valueSize;
  info.capacity = fixed.capacity;
  info.size = header->size.load();
  if (mapping.lockedExclusively(writerLockByte)) info.writerPid = header->writerPid;
  return info;
}

bool removeTable(const std::string& name) {
  const bool removed = shm_unlink(("/" + tableObject(name)).c_str()) == 0;
  shm_unlink(("/" + registryObject(name)).c_str());
  for (U32 slot = 0; slot < maxWatchers; ++slot) unlink(wakeSocketPath(name, slot).c_str());
  return removed;
}

}  // namespace Cairn
