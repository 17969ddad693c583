#include <Vrf/VrfIdMapTypes.h>

#include <Mox/Exception.h>

#include <algorithm>
#include <cstring>

namespace Vrf::VrfIdMap {

using Mox::U32;

void VrfId::stringValueIs(const std::string& text) {
  Mox::TextIter it = text.data();
  VrfId read;
  sequenceToValue(it, text.data() + text.size(), &read);
  if (it != text.data() + text.size()) throw Mox::RangeException("Invalid VrfId");
  *this = read;
}

std::string valueToStrep(const VrfId& value) {
  return value.stringValue();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, VrfId* value) {
  Mox::TextIter cursor = it;
  const Mox::S64 number = Mox::dectol(cursor, end);
  if (cursor == it || number > 0xFFFFFFFFll) throw Mox::RangeException("Invalid VrfId");
  it = cursor;
  value->valueIs(static_cast<U32>(number));
}

std::ostream& operator<<(std::ostream& os, const VrfId& value) {
  return os << value.value();
}

void VrfEntry::vrfNameIs(const std::string& name) noexcept {
  std::memset(name_, 0, sizeof name_);
  std::memcpy(name_, name.data(), std::min<size_t>(name.size(), maxNameLength));
}

std::string VrfEntry::stringValue() const {
  return Mox::ValueText("Vrf::VrfIdMap::VrfEntry").attr("key", key_).attr("name", vrfName()).str();
}

bool VrfEntry::operator==(const VrfEntry& other) const noexcept {
  return key_ == other.key_ && std::strcmp(name_, other.name_) == 0;
}

std::string valueToStrep(const VrfEntry& value) {
  return value.stringValue();
}

std::ostream& operator<<(std::ostream& os, const VrfEntry& value) {
  return os << value.stringValue();
}

Status::Table& Status::vrfIdToName() {
  if (!table_) table_ = std::make_unique<Table>(name(), capacity_);
  return *table_;
}

Mox::Ptr<Status::Watcher> Status::vrfIdToNameWatcher() {
  try {
    Cairn::Reader<VrfId, VrfEntry> exists(name(), capacity_);
  } catch (const Mox::ErrnoException&) {
    // Missing: make it empty, as a writer would, and leave writing to the writer.
    Table(name(), capacity_);
  }
  return Mox::make<Watcher>(name(), capacity_);
}

Mox::Ptr<Status> statusFactory(const Mox::Name& name, U32 capacity) {
  Cairn::validateName(name);
  return Mox::Ptr<Status>(new Status(name, capacity));
}

// An id as one U32; an entry as its id and its name.
void attrLogWrite(Mox::AttrLogWriter& out, const VrfId& value) { out.integer(value.value()); }

void attrLogRead(Mox::AttrLogReader& in, VrfId* value) { *value = VrfId(in.integer<Mox::U32>()); }

void attrLogWrite(Mox::AttrLogWriter& out, const VrfEntry& value) {
  attrLogWrite(out, value.key());
  attrLogWrite(out, value.vrfName());
}

void attrLogRead(Mox::AttrLogReader& in, VrfEntry* value) {
  const auto key = Mox::attrLogGet<VrfId>(in);
  const auto name = Mox::attrLogGet<std::string>(in);
  if (name.size() > VrfEntry::maxNameLength) throw Mox::AttrLogError("VrfEntry name too long");
  *value = VrfEntry(key, name);
}

}  // namespace Vrf::VrfIdMap
