#include <Arp/ArpTable.h>

#include <Mox/Exception.h>
#include <Mox/Model.h>

#include <ostream>

namespace Arp::Table {

using Mox::U32;
using Vrf::VrfIdMap::VrfId;

// --- ArpKey ---

std::string ArpKey::stringValue() const {
  return Mox::ValueText("Arp::Table::ArpKey")
      .attr("vrfId", vrfId_)
      .attr("addr", addr_)
      .attr("intfId", intfId_)
      .str();
}

void ArpKey::stringValueIs(std::string_view text) {
  *this = Mox::valueFromText<ArpKey>(text, "Invalid ArpKey");
}

U32 ArpKey::hash() const noexcept {
  return Korva::valueHashMix(vrfId_.hash() ^ intfId_.hash() * 31 ^ addr_.hash() * 961);
}

std::string valueToStrep(const ArpKey& value) {
  return value.stringValue();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ArpKey* value) {
  Mox::TextIter cursor = it;
  VrfId vrfId;
  Korva::IpGenAddr addr;
  Korva::IntfId intfId;
  Mox::ValueParser(cursor, end, "Arp::Table::ArpKey")
      .attr("vrfId", &vrfId)
      .attr("addr", &addr)
      .attr("intfId", &intfId)
      .finish();
  it = cursor;
  *value = ArpKey(vrfId, intfId, addr);
}

std::ostream& operator<<(std::ostream& os, const ArpKey& value) {
  return os << value.stringValue();
}

// --- ArpEntry ---

std::string ArpEntry::stringValue() const {
  return Mox::ValueText("Arp::Table::ArpEntry")
      .attr("key", key_)
      .attr("ethAddr", ethAddr_)
      .attr("isStatic", isStatic_)
      .attr("isHostRoute", isHostRoute_)
      .attr("source", source_)
      .str();
}

void ArpEntry::stringValueIs(std::string_view text) {
  *this = Mox::valueFromText<ArpEntry>(text, "Invalid ArpEntry");
}

std::string valueToStrep(const ArpEntry& value) {
  return value.stringValue();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ArpEntry* value) {
  Mox::TextIter cursor = it;
  ArpKey key;
  Korva::EthAddr ethAddr;
  bool isStatic = false, isHostRoute = false;
  ArpSource source;
  Mox::ValueParser(cursor, end, "Arp::Table::ArpEntry")
      .attr("key", &key)
      .attr("ethAddr", &ethAddr)
      .attr("isStatic", &isStatic)
      .attr("isHostRoute", &isHostRoute)
      .attr("source", &source)
      .finish();
  it = cursor;
  *value = ArpEntry(key, ethAddr, isStatic, isHostRoute, source);
}

std::ostream& operator<<(std::ostream& os, const ArpEntry& value) {
  return os << value.stringValue();
}

// --- EntryMap ---

EntryMap::EntryMap(std::string tableName, U32 capacity)
    : tableName_(std::move(tableName)), capacity_(capacity) {}

EntryMap::~EntryMap() = default;

EntryMap::Writer& EntryMap::writer() {
  if (!writer_) writer_ = std::make_unique<Writer>(tableName_, capacity_);
  return *writer_;
}

const EntryMap::Reader& EntryMap::reader() const {
  if (!reader_) reader_ = std::make_unique<Reader>(tableName_, capacity_);
  return *reader_;
}

ArpEntry EntryMap::find(const ArpKey& key) const {
  return (writer_ ? writer_->find(key) : reader().find(key)).value_or(ArpEntry());
}

void EntryMap::entryIs(const ArpEntry& entry) {
  writer().set(entry.key(), entry);
}

void EntryMap::entryDel(const ArpKey& key) {
  writer().del(key);
}

void EntryMap::entryDelAll() {
  writer().clear();
}

void EntryMap::entryNotify(const ArpKey& key) {
  writer().notify(key);
}

Mox::Ptr<EntryMap::Watcher> EntryMap::watcher() {
  try {
    reader();
  } catch (const Mox::ErrnoException&) {
    // Missing: make it empty, as a writer would, and leave writing to the writer.
    Writer(tableName_, capacity_);
  }
  return Mox::make<Watcher>(tableName_, capacity_);
}

// --- Status ---

Status::Status(const Mox::Name& name, U32 capacity)
    : Mox::Entity(name),
      capacity_(capacity),
      arpEntry_(name + "-v4", capacity),
      neighborEntry_(name + "-v6", capacity) {}

void Status::remove(const std::string& name) {
  Cairn::removeTable(name + "-v4");
  Cairn::removeTable(name + "-v6");
}

Mox::Ptr<Status> statusFactory(const Mox::Name& name, U32 capacity) {
  Cairn::validateName(name + "-v4");
  return Mox::Ptr<Status>(new Status(name, capacity));
}

}  // namespace Arp::Table
