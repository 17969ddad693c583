#pragma once
// How the attribute log sees one entity class. tools/moxgen generates an AttrLogClass for
// every streamed entity of a model; the publisher and the mount (Mox/AttrLogPublisher.h,
// Mox/AttrLogMount.h) work only through it, never through the generated types.
//
// Attributes are numbered from 0 in model order, the base class's first, so that a derived
// entity's numbers follow its base's. A change travels as one record naming the entity (a
// handle the publisher gives it), the attribute number and, for collections, the key:
//   set   the scalar, or the entry of the key, now holds the value that follows;
//   del   the key has no entry (for child entities: no child) any more;
//   child the key now has a child entity, known from here on by the handle that follows.

#include <Mox/AttrLog.h>
#include <Mox/AttrLogWire.h>
#include <Mox/Entity.h>
#include <Mox/Model.h>
#include <Mox/Ptr.h>
#include <Mox/Types.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

enum class AttrLogKind : U8 { scalar, map, array, queue, children };

// Where the records of a tree's changes go: a publisher's connections, or a text printer.
// Generated code calls the templates; a record is written inline, on the hot path of every
// published change, so the subclass only says where records go and hears when each is done.
class AttrLogSink {
 public:
  virtual ~AttrLogSink() = default;

  template <class V>
  void scalar(U32 handle, U16 attr, const V& value);
  // The present state of `key` in `coll` (a map, array or queue): set, or del when absent.
  template <class K, class C>
  void entry(U32 handle, U16 attr, const C& coll, const K& key);
  // The same for a map that keeps the entry it set last (nullptr: none), which spares the
  // look-up of a key that was just set.
  template <class K, class V>
  void entry(U32 handle, U16 attr, const std::map<K, V>& coll, const K& key,
             const std::pair<const K, V>* lastSet);
  // Every entry present in `coll`.
  template <class K, class C>
  void entries(U32 handle, U16 attr, const C& coll);
  // The present child of `key` in a children collection (a map of Ptr<T>).
  template <class K, class C>
  void child(U32 handle, U16 attr, const C& coll, const K& key);
  template <class K, class C>
  void children(U32 handle, U16 attr, const C& coll);

 protected:
  // Where records go, or nullptr when nobody listens (and for a sink that prints).
  AttrLogRecordWriter* records_ = nullptr;
  // A record has been written to records_.
  virtual void recordDone() {}
  // The key (its binary form) has the child `child` now; nullptr: it has none any more.
  virtual void childIs(U32 handle, U16 attr, std::string_view key, Entity* child) = 0;
  // A sink that prints gets the text forms instead of records (value nullptr: deleted).
  virtual bool wantsText() const noexcept { return false; }
  virtual void textIs(U32 /*handle*/, U16 /*attr*/, const std::string* /*key*/,
                      const std::string* /*value*/) {}

 private:
  template <class K, class V>
  void write(U32 handle, U16 attr, const K* key, const V* value);
  template <class K, class C>
  void childWrite(U32 handle, U16 attr, const K& key, Entity* child);
};

// Collects the text forms of what a class writes instead of records, for printing: one
// line per scalar or entry (no value: deleted) and per child (with the child, if any).
class AttrLogTextSink : public AttrLogSink {
 public:
  struct Line {
    U32 handle;
    U16 attr;
    std::optional<std::string> key;
    std::optional<std::string> value;
    Entity* child = nullptr;
  };
  std::vector<Line> lines;

 protected:
  bool wantsText() const noexcept override { return true; }
  void textIs(U32 handle, U16 attr, const std::string* key, const std::string* value) override {
    lines.push_back({handle, attr, key ? std::optional(*key) : std::nullopt,
                     value ? std::optional(*value) : std::nullopt});
  }
  void childIs(U32, U16, std::string_view, Entity* child) override { lines.back().child = child; }
};

// The receiving side of child records, given by the mount.
class AttrLogMirror {
 public:
  virtual ~AttrLogMirror() = default;
  // `child` is now the child named by the handle (and type) the record's value holds.
  virtual void childIs(Entity& child, AttrLogReader& value) = 0;
  // `child` is about to be deleted from its parent.
  virtual void childGone(Entity* child) = 0;
};

// One notifiee per class level of a watched entity.
using AttrLogWatches = std::vector<std::unique_ptr<Entity::NotifieeBase>>;

class AttrLogClass {
 public:
  struct Attr {
    const char* name;
    AttrLogKind kind;
    bool streamed;  // false for types without a binary form: never written nor accepted
    // The C++ types of the value (for children: the child entity) and key ("" for scalars).
    const char* valueType;
    const char* keyType;
    // The class of a children attribute's entities (nullptr: never streamed). A function, so
    // that classes may be made in any order and a tree type may contain itself.
    const AttrLogClass& (*child)() = nullptr;
  };

  AttrLogClass(const char* typeName, const AttrLogClass* base, std::vector<Attr> attrs);
  virtual ~AttrLogClass() = default;
  AttrLogClass(const AttrLogClass&) = delete;
  AttrLogClass& operator=(const AttrLogClass&) = delete;

  const char* typeName() const noexcept { return typeName_; }
  // FNV-1a 64 of this class's table, its base's fingerprint included: over the type name,
  // the base's fingerprint (8 bytes, 0 without a base) and per attribute its name, kind
  // (U8), streamed flag (U8), value and key type texts; texts end in a zero byte and
  // integers are little-endian. Children count by their type's name, not their table.
  U64 fingerprint() const noexcept { return fingerprint_; }
  U16 attrCount() const noexcept { return static_cast<U16>(first_ + attrs_.size()); }
  // The attribute numbered `id`, or nullptr. Inline, as apply() is: a mount calls both per
  // change it reads.
  const Attr* attr(U16 id) const noexcept {
    if (id < first_) return base_->attr(id);
    const size_t own = id - first_;
    return own < attrs_.size() ? &attrs_[own] : nullptr;
  }

  // Records of every attribute's present state, children included.
  void snapshot(const Entity& entity, U32 handle, AttrLogSink& sink) const;
  // The record of attribute `id`'s present state (for a collection: of the key `key` holds).
  void emit(const Entity& entity, U32 handle, U16 id, AttrLogReader& key, AttrLogSink& sink) const;
  // Applies one set, del or child record to `entity` through its ordinary mutators, so
  // that its notifiees hear it as a local change. Raises AttrLogError (or the value's
  // own exception, for a value out of its bounds) on bytes that do not fit, the key and
  // value having to be read whole; a record that raises leaves the entity as it was.
  void apply(Entity& entity, U16 id, AttrLogOp op, AttrLogReader& key, AttrLogReader& value,
             AttrLogMirror& mirror) const {
    if (id < first_) return base_->apply(entity, id, op, key, value, mirror);
    applyOwn(entity, static_cast<U16>(id - first_), op, key, value, mirror);
  }
  // Calls fn(key, child) for each entry of collection `id` (child: nullptr but for children).
  using EntryFn = std::function<void(std::string_view key, Entity* child)>;
  void forEachEntry(const Entity& entity, U16 id, const EntryFn& fn) const;
  // Watches `entity` at every class level, writing its changes to `sink`.
  void watch(Entity& entity, U32 handle, AttrLogSink& sink, AttrLogWatches* watches) const;

  // Makes a root entity of this class by name (null for classes made otherwise).
  virtual Ptr<Entity> make(const Name& /*name*/) const { return nullptr; }

 protected:
  // The same for this class's own attributes: `local` counts from 0, `first` is the number
  // of the first of them.
  virtual void snapshotOwn(const Entity& entity, U32 handle, U16 first,
                           AttrLogSink& sink) const = 0;
  virtual void emitOwn(const Entity& entity, U32 handle, U16 first, U16 local, AttrLogReader& key,
                       AttrLogSink& sink) const = 0;
  virtual void applyOwn(Entity& entity, U16 local, AttrLogOp op, AttrLogReader& key,
                        AttrLogReader& value, AttrLogMirror& mirror) const = 0;
  virtual void forEachEntryOwn(const Entity& entity, U16 local, const EntryFn& fn) const = 0;
  virtual std::unique_ptr<Entity::NotifieeBase> watchOwn(Entity& entity, U32 handle, U16 first,
                                                         AttrLogSink& sink) const = 0;

 private:
  const char* typeName_;
  const AttrLogClass* base_;
  U16 first_;
  std::vector<Attr> attrs_;
  U64 fingerprint_;
};

// The schema of a published tree: FNV-1a 64 over the fingerprints (8 bytes little-endian
// each) of `root` and every class reachable from it through children attributes, each once,
// in depth-first order of attribute numbers. A mount reads only a tree of equal schema.
U64 attrLogSchema(const AttrLogClass& root);

// The class of entity type T for a children row (the function that makes it, as Attr::child
// holds it), or nullptr when T has no attribute log: for entities of another model.
template <class T>
constexpr auto attrLogClassOf() {
  using ClassFn = const AttrLogClass& (*)();
  if constexpr (requires { T::attrLog(); }) return ClassFn(&T::attrLog);
  return ClassFn(nullptr);
}

// The registry of streamed classes by type name, filled when each class is first made.
const AttrLogClass* attrLogClassNamed(std::string_view typeName);
bool attrLogClassRegister(const AttrLogClass& cls);

// --- collection access, by the shape of the generated container ---------------------------

// The entry type of a generated container.
template <class C>
struct AttrLogEntryOf {
  using type = typename C::value_type;  // arrays
};
template <class K, class V>
struct AttrLogEntryOf<std::map<K, V>> {
  using type = V;
};
template <class V>
struct AttrLogEntryOf<QueueEntries<V>> {
  using type = V;
};
template <class C>
using AttrLogEntry = typename AttrLogEntryOf<C>::type;

// Calls fn(entry) with the entry of `key`, or with nullptr when there is none.
template <class K, class V, class Fn>
void attrLogVisit(const std::map<K, V>& coll, const K& key, Fn fn) {
  auto entry = coll.find(key);
  fn(entry == coll.end() ? nullptr : &entry->second);
}
template <class K, class V, class Fn>
void attrLogVisit(const std::vector<V>& coll, const K& key, Fn fn) {
  const size_t position = indexOf(key);
  if (position >= coll.size() || coll[position] == V()) return fn(static_cast<const V*>(nullptr));
  const V entry = coll[position];  // a copy: std::vector<bool> has no entry to point at
  fn(&entry);
}
template <class K, class V, class Fn>
void attrLogVisit(const QueueEntries<V>& coll, const K& key, Fn fn) {
  auto entry = queueFind(coll, key);
  fn(entry == coll.end() ? nullptr : &entry->second);
}

template <class K, class V, class Fn>
void attrLogEach(const std::map<K, V>& coll, Fn fn) {
  for (const auto& [key, value] : coll) fn(key, value);
}
template <class K, class V, class Fn>
void attrLogEach(const std::vector<V>& coll, Fn fn) {
  for (size_t position = 0; position < coll.size(); ++position) {
    if (!(coll[position] == V())) fn(indexFrom<K>(position), coll[position]);
  }
}
template <class K, class V, class Fn>
void attrLogEach(const QueueEntries<V>& coll, Fn fn) {
  for (const auto& [key, value] : coll) fn(static_cast<K>(key), value);
}

// The binary form of one value.
std::string attrLogBytes(const auto& value) {
  std::string bytes;
  {
    AttrLogWriter out(&bytes);
    attrLogWrite(out, value);
  }  // trimmed
  return bytes;
}

// --- the sink's templates -----------------------------------------------------------------

template <class K, class V>
void AttrLogSink::write(U32 handle, U16 attr, const K* key, const V* value) {
  if (records_) {
    AttrLogWriter& out = records_->begin(value ? AttrLogOp::set : AttrLogOp::del, handle, attr);
    if (key) attrLogWrite(out, *key);
    records_->endKey();
    if (value) attrLogWrite(out, *value);
    records_->end();
    return recordDone();
  }
  if (wantsText()) {
    const std::string keyText = key ? valueToStrep(*key) : std::string();
    const std::string valueText = value ? valueToStrep(*value) : std::string();
    textIs(handle, attr, key ? &keyText : nullptr, value ? &valueText : nullptr);
  }
}

template <class V>
void AttrLogSink::scalar(U32 handle, U16 attr, const V& value) {
  if constexpr (AttrLoggable<V>) write<V, V>(handle, attr, nullptr, &value);
}

template <class K, class C>
void AttrLogSink::entry(U32 handle, U16 attr, const C& coll, const K& key) {
  using V = AttrLogEntry<C>;
  if constexpr (AttrLoggable<K> && AttrLoggable<V>) {
    attrLogVisit<K>(coll, key, [&](const V* value) { write(handle, attr, &key, value); });
  }
}

template <class K, class V>
void AttrLogSink::entry(U32 handle, U16 attr, const std::map<K, V>& coll, const K& key,
                        const std::pair<const K, V>* lastSet) {
  if constexpr (AttrLoggable<K> && AttrLoggable<V>) {
    if (lastSet && lastSet->first == key) return write(handle, attr, &key, &lastSet->second);
    entry(handle, attr, coll, key);
  }
}

template <class K, class C>
void AttrLogSink::entries(U32 handle, U16 attr, const C& coll) {
  using V = AttrLogEntry<C>;
  if constexpr (AttrLoggable<K> && AttrLoggable<V>) {
    attrLogEach<K>(coll, [&](const K& key, const V& value) { write(handle, attr, &key, &value); });
  }
}

template <class K, class C>
void AttrLogSink::childWrite(U32 handle, U16 attr, const K& key, Entity* child) {
  if (child && !child->attrLogClass()) return;  // a child that is never streamed
  if (wantsText()) {
    const std::string keyText = valueToStrep(key);
    textIs(handle, attr, &keyText, nullptr);
  }
  childIs(handle, attr, attrLogBytes(key), child);
}

template <class K, class C>
void AttrLogSink::child(U32 handle, U16 attr, const C& coll, const K& key) {
  if constexpr (AttrLoggable<K>) {
    auto entry = coll.find(key);
    childWrite<K, C>(handle, attr, key, entry == coll.end() ? nullptr : entry->second.get());
  }
}

template <class K, class C>
void AttrLogSink::children(U32 handle, U16 attr, const C& coll) {
  if constexpr (AttrLoggable<K>) {
    for (const auto& [key, entity] : coll) childWrite<K, C>(handle, attr, key, entity.get());
  }
}

// Calls fn(key) with the key `key` holds, for key types that have a binary form.
template <class K, class Fn>
void attrLogKeyed(AttrLogReader& key, Fn fn) {
  if constexpr (AttrLoggable<K>) fn(attrLogGet<K>(key));
}

// --- applying records (generated applyOwn calls these) ------------------------------------

template <class V, class Set>
void attrLogApplyScalar(AttrLogOp op, AttrLogReader& value, Set set) {
  if constexpr (AttrLoggable<V>) {
    if (op != AttrLogOp::set) throw AttrLogError("a scalar takes only set records");
    V v{};  // read in place: a copy would reload, in wide reads, the narrow stores just made
    attrLogRead(value, &v);
    value.finish();  // a record is applied whole or not at all
    set(v);
  }
}

template <class K, class V, class Set, class Del>
void attrLogApplyEntry(AttrLogOp op, AttrLogReader& key, AttrLogReader& value, Set set, Del del) {
  if constexpr (AttrLoggable<K> && AttrLoggable<V>) {
    const K k = attrLogGet<K>(key);
    key.finish();
    if (op == AttrLogOp::del) {
      value.finish();
      del(k);
    } else if (op == AttrLogOp::set) {
      V v{};  // read in place, as a scalar's is
      attrLogRead(value, &v);
      value.finish();
      set(k, v);
    } else {
      throw AttrLogError("a collection of values takes only set and del records");
    }
  }
}

template <class K, class Get, class New, class Del>
void attrLogApplyChild(AttrLogOp op, AttrLogReader& key, AttrLogReader& value,
                       AttrLogMirror& mirror, Get get, New make, Del del) {
  if constexpr (AttrLoggable<K>) {
    const K k = attrLogGet<K>(key);
    key.finish();
    if (op == AttrLogOp::del) {
      value.finish();
      mirror.childGone(get(k).get());
      del(k);
    } else if (op == AttrLogOp::child) {
      const bool existed = static_cast<bool>(get(k));
      try {
        mirror.childIs(*make(k), value);
        value.finish();
      } catch (...) {
        // The child made for a record that does not fit goes again.
        if (!existed) {
          mirror.childGone(get(k).get());
          del(k);
        }
        throw;
      }
    } else {
      throw AttrLogError("a collection of entities takes only child and del records");
    }
  }
}

// Calls fn(keyBytes, child) per entry of a collection (generated forEachEntryOwn).
template <class K, class C>
void attrLogEntries(const C& coll, const AttrLogClass::EntryFn& fn) {
  if constexpr (requires { coll.begin()->second.get(); }) {  // children
    if constexpr (AttrLoggable<K>) {
      for (const auto& [key, child] : coll) fn(attrLogBytes(key), child.get());
    }
  } else {
    using V = AttrLogEntry<C>;
    if constexpr (AttrLoggable<K> && AttrLoggable<V>) {
      attrLogEach<K>(coll, [&](const K& key, const V&) { fn(attrLogBytes(key), nullptr); });
    }
  }
}

}  // namespace Mox
