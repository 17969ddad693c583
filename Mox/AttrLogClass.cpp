#include <Mox/AttrLogClass.h>

#include <unordered_map>
#include <unordered_set>

namespace Mox {

namespace {

std::unordered_map<std::string_view, const AttrLogClass*>& registry() {
  static std::unordered_map<std::string_view, const AttrLogClass*> classes;
  return classes;
}

// FNV-1a 64, fed the canonical bytes AttrLogClass::fingerprint() describes.
class Fnv {
 public:
  void text(const char* text) {
    for (; *text; ++text) byte(static_cast<U8>(*text));
    byte(0);
  }
  void integer(U64 value, int bytes) {
    for (int i = 0; i < bytes; ++i) byte(static_cast<U8>(value >> (8 * i)));
  }
  U64 value() const noexcept { return hash_; }

 private:
  void byte(U8 b) { hash_ = (hash_ ^ b) * 0x100000001b3; }
  U64 hash_ = 0xcbf29ce484222325;
};

U64 fingerprintOf(const char* typeName, const AttrLogClass* base,
                  const std::vector<AttrLogClass::Attr>& attrs) {
  Fnv fnv;
  fnv.text(typeName);
  fnv.integer(base ? base->fingerprint() : 0, 8);
  for (const AttrLogClass::Attr& attr : attrs) {
    fnv.text(attr.name);
    fnv.integer(static_cast<U8>(attr.kind), 1);
    fnv.integer(attr.streamed, 1);
    fnv.text(attr.valueType);
    fnv.text(attr.keyType);
  }
  return fnv.value();
}

void schemaOf(const AttrLogClass& cls, std::unordered_set<const AttrLogClass*>* seen, Fnv* fnv) {
  if (!seen->insert(&cls).second) return;
  fnv->integer(cls.fingerprint(), 8);
  for (U16 id = 0; id < cls.attrCount(); ++id) {
    if (const auto child = cls.attr(id)->child) schemaOf(child(), seen, fnv);
  }
}

}  // namespace

AttrLogClass::AttrLogClass(const char* typeName, const AttrLogClass* base, std::vector<Attr> attrs)
    : typeName_(typeName),
      base_(base),
      first_(base ? base->attrCount() : U16(0)),
      attrs_(std::move(attrs)),
      fingerprint_(fingerprintOf(typeName, base, attrs_)) {}

void AttrLogClass::snapshot(const Entity& entity, U32 handle, AttrLogSink& sink) const {
  if (base_) base_->snapshot(entity, handle, sink);
  snapshotOwn(entity, handle, first_, sink);
}

void AttrLogClass::emit(const Entity& entity, U32 handle, U16 id, AttrLogReader& key,
                        AttrLogSink& sink) const {
  if (id < first_) return base_->emit(entity, handle, id, key, sink);
  emitOwn(entity, handle, first_, static_cast<U16>(id - first_), key, sink);
}

void AttrLogClass::forEachEntry(const Entity& entity, U16 id, const EntryFn& fn) const {
  if (id < first_) return base_->forEachEntry(entity, id, fn);
  forEachEntryOwn(entity, static_cast<U16>(id - first_), fn);
}

void AttrLogClass::watch(Entity& entity, U32 handle, AttrLogSink& sink,
                         AttrLogWatches* watches) const {
  if (base_) base_->watch(entity, handle, sink, watches);
  watches->push_back(watchOwn(entity, handle, first_, sink));
}

U64 attrLogSchema(const AttrLogClass& root) {
  std::unordered_set<const AttrLogClass*> seen;
  Fnv fnv;
  schemaOf(root, &seen, &fnv);
  return fnv.value();
}

const AttrLogClass* attrLogClassNamed(std::string_view typeName) {
  auto found = registry().find(typeName);
  return found == registry().end() ? nullptr : found->second;
}

bool attrLogClassRegister(const AttrLogClass& cls) {
  registry().emplace(cls.typeName(), &cls);
  return true;
}

}  // namespace Mox
