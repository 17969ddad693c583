#pragma once
// Korva::IntfId: the identifier of one interface of the switch, a 64-bit value whose text
// form is the long interface name (Ethernet3/1). The type id sits in bits 25 to 31 and the
// sub-type in bits 62 and 63; the interface-type descriptors (IntfIdDesc.h) place the
// numeric parts of the name in the remaining bits. Parsing and printing go through the
// process-wide IntfIdMgr, which must be initialised first.

#include <Korva/Types.h>
#include <Korva/ValueType.h>
#include <Mox/AttrLog.h>
#include <Mox/Text.h>

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>

namespace Korva {

class IntfId {
 public:
  static constexpr U64 nullValue = 0x00000000FFFFFFFFull;

  constexpr IntfId() noexcept = default;
  explicit constexpr IntfId(U64 value) noexcept : value_(value) {}
  // An empty name is the null id; any other name must be one the registered interface
  // types accept, else Mox::RangeException "Invalid IntfId <name>" (or a more precise text).
  explicit IntfId(std::string_view name);

  constexpr U64 value() const noexcept { return value_; }
  constexpr U32 upper() const noexcept { return static_cast<U32>(value_ >> 32); }
  constexpr U32 lower() const noexcept { return static_cast<U32>(value_); }

  // The long name ("Ethernet3/1") and the short name ("Et3/1").
  Mox::String8 stringValue() const;
  Mox::String8 shortName() const;
  // Replaces the value with the parsed name; on failure raises and keeps the old value.
  void stringValueIs(std::string_view name) { *this = IntfId(name); }

  // Jenkins one-at-a-time over the eight bytes of the value, lowest byte first.
  constexpr U32 hash() const noexcept {
    U32 h = 0;
    for (int i = 0; i < 8; ++i) {
      h += static_cast<U8>(value_ >> (8 * i));
      h += h << 10;
      h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

  // False exactly for the null id (0 is a real identifier).
  explicit constexpr operator bool() const noexcept { return value_ != nullValue; }

  // Numeric order of the value; the order of names is compareIntfName (KorvaUtils.h).
  friend constexpr bool operator==(IntfId a, IntfId b) noexcept = default;
  friend constexpr auto operator<=>(IntfId a, IntfId b) noexcept = default;

 private:
  U64 value_ = nullValue;
};

// Writes the long name, without quotes.
std::ostream& operator<<(std::ostream& out, IntfId id);
// The attribute-log form (see Mox/AttrLog.h): one unsigned 64-bit quantity.
inline void attrLogWrite(Mox::AttrLogWriter& out, IntfId value) {
  out.integer(value.value());
}
inline void attrLogRead(Mox::AttrLogReader& in, IntfId* value) {
  *value = IntfId(in.integer<U64>());
}

// The runtime's attribute text: the long name in single quotes.
Mox::String8 valueToStrep(IntfId id);
// Reads "'<long name>'"; any failure raises Mox::RangeException "Error deserializing
// IntfId" and leaves `it` and the value unchanged.
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IntfId* value);

}  // namespace Korva

template <>
struct std::hash<Korva::IntfId> : Korva::ValueHash<Korva::IntfId> {};
