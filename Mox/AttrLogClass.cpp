#include <Mox/AttrLogClass.h>

#include <unordered_map>

namespace Mox {

namespace {

std::unordered_map<std::string_view, const AttrLogClass*>& registry() {
  static std::unordered_map<std::string_view, const AttrLogClass*> classes;
  return classes;
}

}  // namespace

AttrLogClass::AttrLogClass(const char* typeName, const AttrLogClass* base, std::vector<Attr> attrs)
    : typeName_(typeName),
      base_(base),
      first_(base ? base->attrCount() : U16(0)),
      attrs_(std::move(attrs)) {}

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

const AttrLogClass* attrLogClassNamed(std::string_view typeName) {
  auto found = registry().find(typeName);
  return found == registry().end() ? nullptr : found->second;
}

bool attrLogClassRegister(const AttrLogClass& cls) {
  registry().emplace(cls.typeName(), &cls);
  return true;
}

}  // namespace Mox
