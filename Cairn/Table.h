#pragma once
// Fixed-capacity keyed tables in POSIX shared memory: one writer process, many readers.
//
// A table holds up to `capacity` entries of a fixed-size key and value (trivially copyable,
// no padding bytes, compared bytewise). Operations cost a constant expected number of slot
// probes at any fill up to the capacity. The writer maps the segment read-write and holds
// a lock that dies with it, so a second writer is refused. Readers map it read-only, never
// wait on a lock and never see a torn entry: each slot is versioned (odd while written)
// and checksummed, and the slot being written is journaled so a reader takes its previous
// image instead of waiting. The layout is the same for 32-bit and 64-bit processes.
//
//   Cairn::Writer<U32, Entry> writer("vrf", 1024);     // creates the table when missing
//   writer.set(7, entry);                                  // "table full" when full
//   Cairn::Reader<U32, Entry> reader("vrf", 1024);     // in another process
//   std::optional<Entry> entry = reader.find(7);

#include <Cairn/Segment.h>
#include <Cairn/TableLayout.h>
#include <Mox/Types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace Cairn {

// What a table holds; a segment whose header says otherwise is not this table.
struct TableShape {
  U32 keySize = 0;
  U32 valueSize = 0;
  U32 capacity = 0;
};

// A damaged segment or entry, as reported to the corruption handler.
struct Corruption {
  std::string table;
  std::string what;
};
using CorruptionHandler = std::function<void(const Corruption&)>;
// The handler called for every corruption found; the default writes a line to standard
// error. An empty handler restores the default.
void corruptionHandlerIs(CorruptionHandler handler);
void reportCorruption(const std::string& table, const std::string& what);

// What `korva table list` shows of a table.
struct TableInfo {
  std::string name;
  bool valid = false;  // the header is a table header
  U32 keySize = 0;
  U32 valueSize = 0;
  U32 capacity = 0;
  U32 size = 0;
  U32 writerPid = 0;  // 0: no writer attached now
  U64 bytes = 0;
};
TableInfo tableInfo(const std::string& name);
// Removes the table, its reader registry and its readers' wake-up sockets.
bool removeTable(const std::string& name);

class WakeSender;

// The writer's side, on raw bytes; Writer<K, V> gives it types.
class TableWriterCore {
 public:
  // Opens the table `name`, creating it when missing; throws Mox::Exception when another
  // process writes it or when it exists with another shape.
  TableWriterCore(const std::string& name, const TableShape& shape, const Access& access);
  ~TableWriterCore();
  TableWriterCore(const TableWriterCore&) = delete;
  TableWriterCore& operator=(const TableWriterCore&) = delete;

  bool find(const void* key, void* value) const;
  // Inserts or replaces; throws Mox::MemoryLimitExceededException "table full" (changing
  // nothing) when the key is new and the table holds `capacity` entries.
  void set(const void* key, const void* value);
  bool del(const void* key);
  void clear();
  // Announces `key` to the readers without a change: their watchers report it again.
  void notify(const void* key) { publish(key, true); }
  void forEach(const std::function<void(const void* key, const void* value)>& fn) const;
  U32 size() const;
  const std::string& name() const noexcept { return name_; }

 private:
  struct Found {
    U32 slot;
    bool present;
  };
  Found locate(const void* key) const;
  void writeSlot(U32 slot, U32 state, const void* key, const void* value);
  void removeAt(U32 slot);
  void publish(const void* key, bool notified = false);
  void rebuild();
  void recover();
  void initialize(const TableShape& shape);

  std::string name_;
  Mapping mapping_;
  layout::TableHeader* header_ = nullptr;
  std::unique_ptr<WakeSender> wake_;
};

// The reader's side, on raw bytes; Reader<K, V> gives it types.
class TableReaderCore {
 public:
  // Maps the table read-only; throws Mox::ErrnoException when it does not exist. A header
  // of another shape goes to the corruption handler and the table then reads as empty.
  TableReaderCore(const std::string& name, const TableShape& shape);
  ~TableReaderCore();
  TableReaderCore(const TableReaderCore&) = delete;
  TableReaderCore& operator=(const TableReaderCore&) = delete;

  bool valid() const noexcept { return header_ != nullptr; }
  // Where the segment is mapped (read-only).
  const void* segmentAddress() const noexcept { return mapping_.address(); }
  // Copies the value of `key` into `value`; false when absent or damaged.
  bool find(const void* key, void* value) const;
  // The same for keys and values of sizes known where it is compiled.
  template <U32 keySize, U32 valueSize>
  [[gnu::always_inline]] bool findSized(const void* key, void* value) const {
    return header_ && layout::lookUp(slots_, name_, key, value, keySize, valueSize, probes_);
  }
  // Calls fn for each entry; entries seen are each consistent.
  void forEach(const std::function<void(const void* key, const void* value)>& fn) const;
  U32 size() const;
  // Changes published so far; a reader follows them from its own cursor.
  U64 changeCount() const;
  // Appends the keys changed or announced since `cursor` (and to `notified`, whether each
  // was announced without a change) and moves it on; false when the ring has been overrun
  // since (the caller must then resynchronise by a walk).
  bool changesSince(U64& cursor, std::vector<U8>& keys, std::vector<bool>& notified) const;
  // Slots examined by look-ups so far (for measurements).
  U64 probes() const noexcept { return probes_; }
  const std::string& name() const noexcept { return name_; }
  const TableShape& shape() const noexcept { return shape_; }

 private:
  std::string name_;
  TableShape shape_;
  Mapping mapping_;
  const layout::TableHeader* header_ = nullptr;
  layout::SlotArrays slots_;
  mutable U64 probes_ = 0;
};

template <class T>
constexpr bool storable =
    std::is_trivially_copyable_v<T>&& std::has_unique_object_representations_v<T>;

template <class Key, class Value>
TableShape tableShape(U32 capacity) {
  static_assert(storable<Key> && storable<Value>,
                "table keys and values are trivially copyable with no padding bytes");
  return TableShape{sizeof(Key), sizeof(Value), capacity};
}

template <class Key, class Value>
class Writer {
 public:
  Writer(const std::string& name, U32 capacity, const Access& access = Access{})
      : core_(name, tableShape<Key, Value>(capacity), access) {}
  std::optional<Value> find(const Key& key) const {
    Value value;
    if (!core_.find(&key, &value)) return std::nullopt;
    return value;
  }
  void set(const Key& key, const Value& value) { core_.set(&key, &value); }
  bool del(const Key& key) { return core_.del(&key); }
  void clear() { core_.clear(); }
  void notify(const Key& key) { core_.notify(&key); }
  U32 size() const { return core_.size(); }
  template <class Fn>
  void forEach(Fn&& fn) const {
    core_.forEach([&](const void* key, const void* value) {
      fn(*static_cast<const Key*>(key), *static_cast<const Value*>(value));
    });
  }

 private:
  TableWriterCore core_;
};

template <class Key, class Value>
class Reader {
 public:
  Reader(const std::string& name, U32 capacity) : core_(name, tableShape<Key, Value>(capacity)) {}
  [[gnu::always_inline]] std::optional<Value> find(const Key& key) const {
    Value value;
    if (!core_.template findSized<sizeof(Key), sizeof(Value)>(&key, &value)) return std::nullopt;
    return value;
  }
  U32 size() const { return core_.size(); }
  template <class Fn>
  void forEach(Fn&& fn) const {
    core_.forEach([&](const void* key, const void* value) {
      fn(*static_cast<const Key*>(key), *static_cast<const Value*>(value));
    });
  }
  TableReaderCore& core() noexcept { return core_; }
  const TableReaderCore& core() const noexcept { return core_; }

 private:
  TableReaderCore core_;
};

}  // namespace Cairn
