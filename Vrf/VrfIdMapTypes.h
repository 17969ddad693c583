#pragma once
// The values of the VRF id map and the shared table that holds them. A VRF id is a 32-bit
// number: 0 is the VRF "default", 0xFFFFFFFF the null id. A VrfEntry is what the table
// stores for an id: the id and the first 100 characters of the VRF's name.

#include <Cairn/Table.h>
#include <Cairn/Watcher.h>
#include <Korva/ValueType.h>
#include <Mox/AttrLog.h>
#include <Mox/Entity.h>
#include <Mox/Text.h>
#include <Mox/Types.h>
#include <Vrf/VrfIdMapTypes.mox.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace Vrf::VrfIdMap {

class VrfId {
 public:
  constexpr VrfId() noexcept = default;
  constexpr explicit VrfId(Mox::U32 value) noexcept : value_(value) {}
  static constexpr VrfId defaultVrf() noexcept { return VrfId(0); }
  static constexpr VrfId null() noexcept { return VrfId(); }

  constexpr Mox::U32 value() const noexcept { return value_; }
  void valueIs(Mox::U32 value) noexcept { value_ = value; }
  std::string stringValue() const { return std::to_string(value_); }
  // Replaces the value with the decimal text, or raises Mox::RangeException "Invalid VrfId".
  void stringValueIs(const std::string& text);
  Mox::U32 hash() const noexcept { return value_; }

  // Arithmetic wraps around at 32 bits, as the id counter does.
  constexpr VrfId operator+(VrfId other) const noexcept { return VrfId(value_ + other.value_); }
  VrfId& operator+=(VrfId other) noexcept {
    value_ += other.value_;
    return *this;
  }
  friend constexpr bool operator==(VrfId, VrfId) noexcept = default;
  friend constexpr auto operator<=>(VrfId, VrfId) noexcept = default;

 private:
  Mox::U32 value_ = 0xFFFFFFFFu;
};

std::string valueToStrep(const VrfId& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, VrfId* value);
std::ostream& operator<<(std::ostream& os, const VrfId& value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, const VrfId& value);
void attrLogRead(Mox::AttrLogReader& in, VrfId* value);

// The table's value: fixed size, no padding, so equal entries are equal bytes.
class VrfEntry {
 public:
  static constexpr Mox::U32 maxNameLength = 100;

  VrfEntry() noexcept = default;
  VrfEntry(VrfId key, const std::string& name) : key_(key) { vrfNameIs(name); }

  VrfId key() const noexcept { return key_; }
  void keyIs(VrfId key) noexcept { key_ = key; }
  // The name, cut to its first 100 characters when longer.
  std::string vrfName() const { return std::string(name_); }
  void vrfNameIs(const std::string& name) noexcept;
  char name(VrfNameIndex index) const noexcept { return name_[index.value()]; }

  std::string stringValue() const;
  bool operator==(const VrfEntry& other) const noexcept;

 private:
  VrfId key_;
  char name_[maxNameLength + 1] = {};
  [[maybe_unused]] char reserved_[3] = {};  // keeps the size a multiple of 4 without padding bytes
};
static_assert(sizeof(VrfEntry) == 108 && std::has_unique_object_representations_v<VrfEntry>);

std::string valueToStrep(const VrfEntry& value);
std::ostream& operator<<(std::ostream& os, const VrfEntry& value);
void attrLogWrite(Mox::AttrLogWriter& out, const VrfEntry& value);
void attrLogRead(Mox::AttrLogReader& in, VrfEntry* value);

// The shared table `vrfIdToName`, from VrfId to VrfEntry. The writer side makes the table
// when it is missing and becomes its only writer; readers follow it with a watcher.
class Status : public Mox::Entity {
 public:
  using Table = Cairn::Writer<VrfId, VrfEntry>;
  using Watcher = Cairn::Watcher<VrfId, VrfEntry>;

  const std::string& tableName() const noexcept { return name(); }
  Mox::U32 capacity() const noexcept { return capacity_; }
  // The table as its writer; opened on first use (Mox::Exception when another process
  // writes it).
  Table& vrfIdToName();
  // A watcher of the table for a reader in this process, making the table when missing.
  Mox::Ptr<Watcher> vrfIdToNameWatcher();

 private:
  friend Mox::Ptr<Status> statusFactory(const Mox::Name& name, Mox::U32 capacity);
  Status(const Mox::Name& name, Mox::U32 capacity) : Mox::Entity(name), capacity_(capacity) {}

  Mox::U32 capacity_;
  std::unique_ptr<Table> table_;
};

// The status of the table `name` (a valid shared-memory name) holding up to `capacity` VRFs.
Mox::Ptr<Status> statusFactory(const Mox::Name& name, Mox::U32 capacity = 1024);

}  // namespace Vrf::VrfIdMap

template <>
struct std::hash<Vrf::VrfIdMap::VrfId> : Korva::ValueHash<Vrf::VrfIdMap::VrfId> {};
