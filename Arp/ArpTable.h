#pragma once
// The shared ARP table: the kernel-learned and static ARP (IPv4) and neighbour (IPv6)
// entries of every VRF, published by one writer process in two Cairn tables and read by
// any number of agents (usually through an Arp::ArpShimSm).
//
//   auto status = Arp::Table::statusFactory("arp");           // tables arp-v4 and arp-v6
//   status->arpEntryIs(entry);                                  // the writer
//   auto watcher = status->arpEntryWatcher();                   // a reader, in any process

#include <Arp/ArpSource.mox.h>
#include <Cairn/Table.h>
#include <Cairn/Watcher.h>
#include <Korva/EthAddr.h>
#include <Korva/IntfId.h>
#include <Korva/IpGenAddr.h>
#include <Korva/ValueType.h>
#include <Mox/Entity.h>
#include <Vrf/VrfIdMapTypes.h>

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

namespace Arp::Table {

// Where an entry lives: VRF, interface and address. Stored in shared memory, so its bytes
// are its value: fields are laid out without padding, the same for 32-bit and 64-bit
// processes. Ordered by VRF id, then interface id, then address.
class ArpKey {
 public:
  ArpKey() noexcept = default;
  ArpKey(Vrf::VrfIdMap::VrfId vrfId, Korva::IntfId intfId, const Korva::IpGenAddr& addr) noexcept
      : vrfId_(vrfId), addr_(addr), intfId_(intfId) {}

  Vrf::VrfIdMap::VrfId vrfId() const noexcept { return vrfId_; }
  void vrfIdIs(Vrf::VrfIdMap::VrfId vrfId) noexcept { vrfId_ = vrfId; }
  Korva::IntfId intfId() const noexcept { return intfId_; }
  void intfIdIs(Korva::IntfId intfId) noexcept { intfId_ = intfId; }
  const Korva::IpGenAddr& addr() const noexcept { return addr_; }
  void addrIs(const Korva::IpGenAddr& addr) noexcept { addr_ = addr; }

  // Value('Arp::Table::ArpKey', ** {'vrfId': ..., 'addr': ..., 'intfId': ...}), and back;
  // a text that is no key raises Mox::RangeException "Invalid ArpKey" and changes nothing.
  std::string stringValue() const;
  void stringValueIs(std::string_view text);
  Mox::U32 hash() const noexcept;

  friend bool operator==(const ArpKey&, const ArpKey&) = default;
  // Not in the order of the fields, which is chosen for the layout.
  friend auto operator<=>(const ArpKey& a, const ArpKey& b) noexcept {
    return std::tie(a.vrfId_, a.intfId_, a.addr_) <=> std::tie(b.vrfId_, b.intfId_, b.addr_);
  }

 private:
  Vrf::VrfIdMap::VrfId vrfId_;
  Korva::IpGenAddr addr_;
  Korva::IntfId intfId_;
};
static_assert(sizeof(ArpKey) == 32 && Cairn::storable<ArpKey>);

std::string valueToStrep(const ArpKey& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ArpKey* value);
std::ostream& operator<<(std::ostream& os, const ArpKey& value);

// One neighbour as the table stores it. The default (empty) entry means "no entry".
class ArpEntry {
 public:
  ArpEntry() noexcept = default;
  ArpEntry(const ArpKey& key, Korva::EthAddr ethAddr, bool isStatic, bool isHostRoute,
           ArpSource source) noexcept
      : key_(key),
        ethAddr_(ethAddr),
        isStatic_(isStatic),
        isHostRoute_(isHostRoute),
        source_(source) {}

  const ArpKey& key() const noexcept { return key_; }
  void keyIs(const ArpKey& key) noexcept { key_ = key; }
  Korva::EthAddr ethAddr() const noexcept { return ethAddr_; }
  void ethAddrIs(Korva::EthAddr ethAddr) noexcept { ethAddr_ = ethAddr; }
  bool isStatic() const noexcept { return isStatic_; }
  void isStaticIs(bool isStatic) noexcept { isStatic_ = isStatic; }
  bool isHostRoute() const noexcept { return isHostRoute_; }
  void isHostRouteIs(bool isHostRoute) noexcept { isHostRoute_ = isHostRoute; }
  ArpSource source() const noexcept { return source_; }
  void sourceIs(ArpSource source) noexcept { source_ = source; }

  // Value('Arp::Table::ArpEntry', ** {'key': ..., 'ethAddr': ..., 'isStatic': ...,
  // 'isHostRoute': ..., 'source': ...}), and back ("Invalid ArpEntry").
  std::string stringValue() const;
  void stringValueIs(std::string_view text);

  friend bool operator==(const ArpEntry&, const ArpEntry&) = default;

 private:
  ArpKey key_;
  Korva::EthAddr ethAddr_;
  bool isStatic_ = false;
  bool isHostRoute_ = false;
  ArpSource source_;
  char reserved_[7] = {};  // no padding bytes: equal entries are equal bytes
};
static_assert(sizeof(ArpEntry) == 48 && Cairn::storable<ArpEntry>);

std::string valueToStrep(const ArpEntry& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, ArpEntry* value);
std::ostream& operator<<(std::ostream& os, const ArpEntry& value);

// One of the two shared maps, from ArpKey to ArpEntry. The writer side opens the table
// (creating it) on first write and is then its only writer; readers follow it with watchers.
class EntryMap {
 public:
  using Writer = Cairn::Writer<ArpKey, ArpEntry>;
  using Reader = Cairn::Reader<ArpKey, ArpEntry>;
  using Watcher = Cairn::Watcher<ArpKey, ArpEntry>;

  EntryMap(std::string tableName, Mox::U32 capacity);
  ~EntryMap();

  const std::string& tableName() const noexcept { return tableName_; }
  // The entry of `key`; the empty entry when there is none (a damaged entry goes to the
  // corruption handler and reads as none).
  ArpEntry find(const ArpKey& key) const;
  // Calls fn(entry) for every entry.
  template <class Fn>
  void forEach(Fn&& fn) const {
    auto each = [&](const ArpKey&, const ArpEntry& entry) { fn(entry); };
    writer_ ? writer_->forEach(each) : reader().forEach(each);
  }
  Mox::U32 size() const { return writer_ ? writer_->size() : reader().size(); }

  // Becomes the table's only writer now (creating the table) rather than on first write.
  void openWriter() { writer(); }
  // The writer's operations (Mox::MemoryLimitExceededException "table full" on a new key
  // of a full table; Mox::Exception when another process writes the table).
  void entryIs(const ArpEntry& entry);
  void entryDel(const ArpKey& key);
  void entryDelAll();
  // Announces the key to the readers without a change: their watchers (and the shims on
  // them) handle its present entry again.
  void entryNotify(const ArpKey& key);
  // A watcher of the table for a reader in this process, making the table when missing.
  Mox::Ptr<Watcher> watcher();

 private:
  Writer& writer();
  const Reader& reader() const;

  std::string tableName_;
  Mox::U32 capacity_;
  std::unique_ptr<Writer> writer_;
  mutable std::unique_ptr<Reader> reader_;
};

// The shared ARP table: IPv4 entries in `arpEntry`, IPv6 entries in `neighborEntry`.
class Status : public Mox::Entity {
 public:
  Mox::U32 capacity() const noexcept { return capacity_; }

  EntryMap& arpEntry() noexcept { return arpEntry_; }
  EntryMap& neighborEntry() noexcept { return neighborEntry_; }
  const EntryMap& arpEntry() const noexcept { return arpEntry_; }
  const EntryMap& neighborEntry() const noexcept { return neighborEntry_; }
  // The map of the entry's family.
  EntryMap& entryMap(bool isArp) noexcept { return isArp ? arpEntry_ : neighborEntry_; }

  ArpEntry arpEntry(const ArpKey& key) const { return arpEntry_.find(key); }
  void arpEntryIs(const ArpEntry& entry) { arpEntry_.entryIs(entry); }
  void arpEntryDel(const ArpKey& key) { arpEntry_.entryDel(key); }
  void arpEntryDelAll() { arpEntry_.entryDelAll(); }
  void arpEntryNotify(const ArpKey& key) { arpEntry_.entryNotify(key); }
  Mox::Ptr<EntryMap::Watcher> arpEntryWatcher() { return arpEntry_.watcher(); }
  ArpEntry neighborEntry(const ArpKey& key) const { return neighborEntry_.find(key); }
  void neighborEntryIs(const ArpEntry& entry) { neighborEntry_.entryIs(entry); }
  void neighborEntryDel(const ArpKey& key) { neighborEntry_.entryDel(key); }
  void neighborEntryDelAll() { neighborEntry_.entryDelAll(); }
  void neighborEntryNotify(const ArpKey& key) { neighborEntry_.entryNotify(key); }
  Mox::Ptr<EntryMap::Watcher> neighborEntryWatcher() { return neighborEntry_.watcher(); }

  // Removes both tables from shared memory (readers keep what they have mapped).
  static void remove(const std::string& name);

 private:
  friend Mox::Ptr<Status> statusFactory(const Mox::Name& name, Mox::U32 capacity);
  Status(const Mox::Name& name, Mox::U32 capacity);

  Mox::U32 capacity_;
  EntryMap arpEntry_;
  EntryMap neighborEntry_;
};

// The tables agents share unless told otherwise, and their capacity per family.
inline constexpr const char* defaultTableName = "arp";
inline constexpr Mox::U32 defaultCapacity = 16384;

// The ARP table `name` (a shared-memory name of at most 37 characters: the tables are
// `name`-v4 and `name`-v6) holding up to `capacity` entries per family.
Mox::Ptr<Status> statusFactory(const Mox::Name& name, Mox::U32 capacity = defaultCapacity);

}  // namespace Arp::Table

template <>
struct std::hash<Arp::Table::ArpKey> : Korva::ValueHash<Arp::Table::ArpKey> {};
