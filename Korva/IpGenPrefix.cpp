#include <Korva/IpGenPrefix.h>
#include <Mox/Assert.h>
#include <Mox/Trace.h>

#include <algorithm>
#include <ostream>
#include <vector>

namespace Korva {

namespace {

using Mox::RangeException;
using Mox::TextIter;

Mox::TraceHandle trace("IpGenPrefix");

constexpr const char* baseType = "Korva::IpGenPrefixBase";

// The mix of the family's address value XOR the length; 0 for no family.
U32 familyHash(const IpGenAddr& address, U32 len) noexcept {
  switch (address.af()) {
    case AddressFamily::ipv4:
      return valueHashMix(address.v4Addr().value() ^ len);
    case AddressFamily::ipv6:
      return valueHashMix(address.v6Addr().hash() ^ len);
    default:
      return 0;
  }
}

std::string slashText(const IpGenAddr& address, U32 len) {
  return address.stringValue() + '/' + std::to_string(len);
}

// The first `len` bits of two IPv4 addresses agree (all 32 for longer lengths).
bool v4FirstBitsEqual(IpAddr a, IpAddr b, U32 len) noexcept {
  return ((a.value() ^ b.value()) & detail::leadingBitsMask(len)) == 0;
}

bool v4HostBitsClear(IpAddr address, U32 len) noexcept {
  return (address.value() & ~detail::leadingBitsMask(len)) == 0;
}

void checkV4Len(U32 len) {
  if (len > 32) throw RangeException("Invalid IPv4 Prefix Length");
}

void checkV6Len(U32 len) {
  if (len > 128) throw RangeException("Invalid IPv6 Prefix Length");
}

[[noreturn]] void throwHostBitsSet() {
  throw RangeException("Invalid prefix - Non-zero after prefix length");
}

void assertKnownFamily(AddressFamily af) {
  MOX_ASSERT_TEXT(af == AddressFamily::ipv4 || af == AddressFamily::ipv6,
                  "af_ == ipv4_ || af_ == ipv6_");
}

// The IPv4 address and length of a generic prefix text: the length is optional when no "/"
// follows anywhere in the text.
void readV4AddressAndLen(TextIter& it, TextIter end, IpAddr* address, U32* len) {
  TextIter p = it;
  *address = IpAddr(IpAddr::sequenceToValueNbo(p, end));
  if (std::find(p, end, '/') == end) {
    MOX_TRACE(trace, 9, " Detected address " << *address);
    *len = 32;
  } else {
    *len = sequenceToPrefixLen(p, end);
    MOX_TRACE(trace, 9, " Detected prefix " << *address << '/' << *len);
  }
  it = p;
}

// Whole-text parse through the type's sequenceToValue; "Invalid prefix" on leftovers.
template <class T>
void parseWholePrefix(std::string_view text, T* target) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  T value;
  sequenceToValue(it, end, &value);
  if (it != end) throw RangeException("Invalid prefix");
  *target = value;
}

}  // namespace

// --- IpGenPrefixBase ---

U32 IpGenPrefixBase::hash() const noexcept {
  return familyHash(address_, len_);
}

std::string IpGenPrefixBase::stringValue() const {
  return slashText(address_, len_);
}

void IpGenPrefixBase::stringValueIs(std::string_view text) {
  *this = Mox::valueFromText<IpGenPrefixBase>(text, "Invalid IpGenPrefixBase");
}

std::string valueToStrep(const IpGenPrefixBase& value) {
  return Mox::ValueText(baseType)
      .attr("af", value.af())
      .attr("address", value.ipGenAddr())
      .attr("len", value.len())
      .str();
}

void sequenceToValue(TextIter& it, TextIter end, IpGenPrefixBase* value) {
  TextIter p = it;
  AddressFamily af = AddressFamily::ipunknown;
  IpGenAddr address;
  U32 len = 0;
  Mox::ValueParser(p, end, baseType)
      .attr("af", &af)
      .attr("address", &address)
      .attr("len", &len)
      .finish();
  // No family prints its address as "::"; any other address must be of the stated family.
  if (af == AddressFamily::ipunknown && address.isAddrZero()) {
    address = IpGenAddr(AddressFamily::ipunknown);
  } else if (address.af() != af) {
    throw RangeException("Invalid IpGenPrefixBase");
  }
  it = p;
  *value = IpGenPrefixBase(address, len);
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefixBase& value) {
  return os << valueToStrep(value);
}

// --- IpGenPrefix ---

IpGenPrefix::IpGenPrefix(IpAddr address, U32 len) : IpGenPrefixBase(address, len) {
  checkV4Len(len);
  if (!v4HostBitsClear(address, len)) throwHostBitsSet();
}

IpGenPrefix::IpGenPrefix(const Ip6Addr& address, U32 len) : IpGenPrefixBase(address, len) {
  checkV6Len(len);
  if (address.ip6AddrMaskedByLength(len) != address) throwHostBitsSet();
}

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, U32 len) : IpGenPrefixBase(address, len) {
  switch (address.af()) {
    case AddressFamily::ipv4:
      *this = IpGenPrefix(address.v4Addr(), len);
      break;
    case AddressFamily::ipv6:
      *this = IpGenPrefix(address.v6Addr(), len);
      break;
    default:
      break;  // no family: nothing to check against
  }
}

IpGenPrefix::IpGenPrefix(const Prefix& prefix) noexcept
    : IpGenPrefixBase(prefix.address(), prefix.len()) {}

IpGenPrefix::IpGenPrefix(const Ip6Prefix& prefix) noexcept
    : IpGenPrefixBase(prefix.address(), prefix.len()) {}

IpGenPrefix::IpGenPrefix(const IpGenAddr& address) noexcept
    : IpGenPrefixBase(address, address.isV4() ? 32 : 128) {}

Prefix IpGenPrefix::v4Prefix() const {
  MOX_ASSERT(address_.isV4());
  return Prefix(v4Addr(), len_);
}

bool IpGenPrefix::validAsPrefix() const noexcept {
  switch (af()) {
    case AddressFamily::ipv4:
      return len_ == Prefix::nullPrefixLen || (len_ <= 32 && v4HostBitsClear(v4Addr(), len_));
    case AddressFamily::ipv6:
      return v6Prefix().validAsPrefix();
    default:
      return false;
  }
}

bool IpGenPrefix::isDefaultRoutePrefix() const noexcept {
  switch (af()) {
    case AddressFamily::ipv4:
      return len_ == 0 && v4Addr() == IpAddr();
    case AddressFamily::ipv6:
      return v6Prefix().isDefaultRoutePrefix();
    default:
      return false;
  }
}

bool IpGenPrefix::contains(const IpGenAddr& a) const noexcept {
  if (a.af() != af()) return false;
  switch (af()) {
    case AddressFamily::ipv4:
      return v4FirstBitsEqual(v4Addr(), a.v4Addr(), len_);
    case AddressFamily::ipv6:
      return v6Prefix().contains(a.v6Addr());
    default:
      return false;
  }
}

bool IpGenPrefix::overlaps(const IpGenPrefix& other) const noexcept {
  if (other.af() != af()) return false;
  switch (af()) {
    case AddressFamily::ipv4:
      return contains(other.address_) || other.contains(address_);
    case AddressFamily::ipv6:
      return v6Prefix().overlaps(other.v6Prefix());
    default:
      return false;
  }
}

void IpGenPrefix::stringValueIs(std::string_view text) {
  parseWholePrefix(text, this);
}

std::weak_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
  assertKnownFamily(a.af());
  if (a.af() != b.af()) return a.af() <=> b.af();
  return a.af() == AddressFamily::ipv4 ? a.v4Prefix() <=> b.v4Prefix()
                                       : a.v6Prefix() <=> b.v6Prefix();
}

std::string valueToStrep(const IpGenPrefix& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, IpGenPrefix* value) {
  switch (sequenceToAfHint(it, end)) {
    case AddressFamily::ipv6: {
      Ip6Prefix prefix;
      sequenceToValue(it, end, &prefix);
      *value = IpGenPrefix(prefix);
      return;
    }
    case AddressFamily::ipv4: {
      TextIter p = it;
      IpAddr address;
      U32 len;
      readV4AddressAndLen(p, end, &address, &len);
      if (len > 32 || !v4HostBitsClear(address, len)) {
        throw RangeException("Prefix::validAsPrefix != true not allowed");
      }
      it = p;
      *value = IpGenPrefix(Prefix(address, len));
      return;
    }
    default:
      throw RangeException("Invalid prefix");
  }
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& value) {
  return os << value.stringValue();
}

// --- IpGenAddrWithMask ---

IpGenAddrWithMask::IpGenAddrWithMask(IpAddr address, U32 len) : address_(address), len_(len) {
  checkV4Len(len);
}

IpGenAddrWithMask::IpGenAddrWithMask(const Ip6Addr& address, U32 len)
    : address_(address), len_(len) {
  checkV6Len(len);
}

IpGenAddrWithMask::IpGenAddrWithMask(const IpGenAddr& address, U32 len)
    : address_(address), len_(len) {
  if (address.isV4()) checkV4Len(len);
  if (address.isV6()) checkV6Len(len);
}

IpGenAddrWithMask::IpGenAddrWithMask(const IpAddrWithMask& value) noexcept
    : address_(value.address()), len_(value.len()) {}

IpGenAddrWithMask::IpGenAddrWithMask(const Ip6AddrWithMask& value) noexcept
    : address_(value.address()), len_(value.len()) {}

Prefix IpGenAddrWithMask::v4Subnet() const {
  const U32 masked = address_.v4Addr().value() & detail::leadingBitsMask(len_);
  return Prefix(IpAddr::fromHostOrder(masked), len_);
}

Ip6Prefix IpGenAddrWithMask::v6Subnet() const noexcept {
  const Ip6AddrWithMask subnet = v6AddrWithMask().subnet();
  return Ip6Prefix(subnet.address(), subnet.len());
}

IpGenPrefix IpGenAddrWithMask::subnet() const {
  switch (af()) {
    case AddressFamily::ipv4:
      return IpGenPrefix(v4Subnet());
    case AddressFamily::ipv6:
      return IpGenPrefix(v6Subnet());
    default:
      return IpGenPrefix(address_, len_);
  }
}

bool IpGenAddrWithMask::contains(const IpGenAddr& a) const noexcept {
  if (a.af() != af()) return false;
  switch (af()) {
    case AddressFamily::ipv4:
      return v4FirstBitsEqual(address_.v4Addr(), a.v4Addr(), len_);
    case AddressFamily::ipv6:
      return v6AddrWithMask().contains(a.v6Addr());
    default:
      return false;
  }
}

U32 IpGenAddrWithMask::hash() const noexcept {
  return familyHash(address_, len_);
}

std::string IpGenAddrWithMask::stringValue() const {
  return slashText(address_, len_);
}

void IpGenAddrWithMask::stringValueIs(std::string_view text) {
  parseWholePrefix(text, this);
}

std::weak_ordering operator<=>(const IpGenAddrWithMask& a, const IpGenAddrWithMask& b) {
  assertKnownFamily(a.af());
  if (a.af() != b.af()) return a.af() <=> b.af();
  return a.af() == AddressFamily::ipv4 ? a.v4AddrWithMask() <=> b.v4AddrWithMask()
                                       : a.v6AddrWithMask() <=> b.v6AddrWithMask();
}

std::string valueToStrep(const IpGenAddrWithMask& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, IpGenAddrWithMask* value) {
  switch (sequenceToAfHint(it, end)) {
    case AddressFamily::ipv6: {
      Ip6AddrWithMask read;
      sequenceToValue(it, end, &read);
      *value = IpGenAddrWithMask(read);
      return;
    }
    case AddressFamily::ipv4: {
      // Unlike the prefix reader, the IPv4 address-with-length reader demands its length.
      IpAddrWithMask read;
      sequenceToValue(it, end, &read);
      *value = IpGenAddrWithMask(read);
      return;
    }
    default:
      throw RangeException("Invalid prefix");
  }
}

std::ostream& operator<<(std::ostream& os, const IpGenAddrWithMask& value) {
  return os << value.stringValue();
}

// --- IpGenPrefixSet ---

std::optional<bool> IpGenPrefixSet::prefix(const IpGenPrefix& key) const {
  const auto entry = prefix_.find(key);
  if (entry == prefix_.end()) return std::nullopt;
  return entry->second;
}

bool IpGenPrefixSet::prefixIs(const IpGenPrefix& key, bool value) {
  const auto [entry, inserted] = prefix_.try_emplace(key, value);
  if (inserted) return true;
  if (entry->second == value) return false;
  entry->second = value;
  return true;
}

bool IpGenPrefixSet::prefixDel(const IpGenPrefix& key) {
  return prefix_.erase(key) != 0;
}

// --- IpGenPrefixColl ---

void IpGenPrefixColl::prefixSetIs(const IpGenPrefix& key, bool value) {
  if (set_.prefixIs(key, value)) prefixSetNotify(key);
}

void IpGenPrefixColl::prefixSetDel(const IpGenPrefix& key) {
  if (set_.prefixDel(key)) prefixSetNotify(key);
}

void IpGenPrefixColl::prefixSetDelAll() {
  // Remove one key at a time so each notifiee sees the collection without that key; a
  // notifiee may change the collection meanwhile.
  std::vector<IpGenPrefix> keys;
  keys.reserve(set_.prefixCount());
  for (const auto& entry : set_.prefixes()) keys.push_back(entry.first);
  for (const IpGenPrefix& key : keys) prefixSetDel(key);
}

void IpGenPrefixColl::prefixSetNotify(const IpGenPrefix& key) const {
  notify<Notifiee>([&key](Notifiee& notifiee) { notifiee.onPrefixSet(key); });
}

// The address's form, then the length as U32.
void attrLogWrite(Mox::AttrLogWriter& out, const IpGenPrefixBase& value) {
  attrLogWrite(out, value.ipGenAddr());
  out.integer(value.len());
}

void attrLogRead(Mox::AttrLogReader& in, IpGenPrefixBase* value) {
  const auto address = Mox::attrLogGet<IpGenAddr>(in);
  *value = IpGenPrefixBase(address, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const IpGenPrefix& value) {
  attrLogWrite(out, static_cast<const IpGenPrefixBase&>(value));
}

void attrLogRead(Mox::AttrLogReader& in, IpGenPrefix* value) {
  const auto address = Mox::attrLogGet<IpGenAddr>(in);
  *value = IpGenPrefix(address, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const IpGenAddrWithMask& value) {
  attrLogWrite(out, value.ipGenAddr());
  out.integer(value.len());
}

void attrLogRead(Mox::AttrLogReader& in, IpGenAddrWithMask* value) {
  const auto address = Mox::attrLogGet<IpGenAddr>(in);
  *value = IpGenAddrWithMask(address, in.integer<U32>());
}

}  // namespace Korva
