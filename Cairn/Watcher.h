#pragma once
// A reader that follows a table's changes from its own event loop. It keeps its own copy
// of what it last saw of each key and reports every key whose value differs from that
// copy: on its first turn the whole table, then the keys of each batch of changes, and
// after falling behind the change ring, the differences found by a full walk; and a key
// the writer announces without a change (notify) with its present value. Several changes
// of a key may arrive as one report, but the reported value is always the latest.
//
//   struct Printer : Cairn::Watcher<U32, Entry>::Notifiee {
//     void onEntry(const U32& key, const Entry* value) override { ... }  // null: removed
//   };
//   auto watcher = Mox::make<Cairn::Watcher<U32, Entry>>("vrf", 1024);
//   printer.notifierIs(watcher);

#include <Cairn/Table.h>
#include <Cairn/Wake.h>
#include <Mox/Entity.h>
#include <Mox/FileDescriptor.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Cairn {

class WatcherCore : public Mox::Entity {
 public:
  // Follows table `name` (which must exist) as a reader of the given shape.
  WatcherCore(const std::string& name, const TableShape& shape, const Access& access);
  ~WatcherCore() override;

  // Reads what changed now (the loop calls this when woken).
  void sync();
  const TableReaderCore& reader() const noexcept { return reader_; }
  // How many times the watcher fell behind and walked the table.
  U64 resyncs() const noexcept { return resyncs_; }
  // The value last seen for a key, null when absent.
  const void* seen(const void* key) const;

 protected:
  virtual void onChange(const void* key, const void* value) = 0;

 private:
  class Wakeup;
  void walk();
  void examine(const std::string& key, bool announced);
  // Reports `key` if `value` (none: the key is absent) differs from what was seen last, or
  // when `announced`, if it is present.
  void report(std::string_view key, std::optional<std::string_view> value, bool announced = false);

  TableReaderCore reader_;
  WakeReceiver receiver_;
  Mox::Ptr<Mox::FileDescriptor> fd_;
  std::unique_ptr<Wakeup> wakeup_;
  // Where the key and value last seen of each key are kept: fixed-size records in chunks
  // that never move, so the map's keys can be views of them and a key costs one map node
  // rather than two strings besides.
  class Records {
   public:
    explicit Records(size_t recordSize) : recordSize_(recordSize) {}
    char* take();
    void give(char* record) { free_.push_back(record); }

   private:
    static constexpr size_t chunkRecords = 4096;
    size_t recordSize_;
    size_t used_ = chunkRecords;  // records taken from the last chunk
    std::vector<std::unique_ptr<char[]>> chunks_;
    std::vector<char*> free_;
  };
  // A key's record, and the walk that last found it (so a walk finds what went without a
  // second map of the whole table).
  struct Seen {
    char* record;
    U64 walk = 0;
  };
  struct KeyHash {
    using is_transparent = void;
    size_t operator()(std::string_view key) const noexcept {
      return std::hash<std::string_view>()(key);
    }
  };
  Records records_;
  std::unordered_map<std::string_view, Seen, KeyHash> seen_;
  U64 walks_ = 0;
  U64 cursor_ = 0;
  U64 resyncs_ = 0;
  bool walked_ = false;
};

template <class Key, class Value>
class Watcher : public WatcherCore {
 public:
  class Notifiee : public Mox::Entity::NotifieeBase {
   public:
    Watcher* notifier() const noexcept {
      return static_cast<Watcher*>(const_cast<Entity*>(notifierBase()));
    }
    void notifierIs(const Mox::Ptr<Watcher>& watcher) { notifierBaseIs(watcher.get()); }
    // `value` is the key's latest value, or null when the key is gone.
    virtual void onEntry(const Key& key, const Value* value) = 0;
  };

  Watcher(const std::string& name, U32 capacity, const Access& access = Access{})
      : WatcherCore(name, tableShape<Key, Value>(capacity), access) {}
  const Value* seenValue(const Key& key) const { return static_cast<const Value*>(seen(&key)); }

 protected:
  void onChange(const void* key, const void* value) override {
    Key k;
    std::memcpy(&k, key, sizeof k);
    std::optional<Value> v;
    if (value) v.emplace(), std::memcpy(&*v, value, sizeof(Value));
    notify<Notifiee>([&](Notifiee& notifiee) { notifiee.onEntry(k, v ? &*v : nullptr); });
  }
};

}  // namespace Cairn
