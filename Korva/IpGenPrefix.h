#pragma once
// Family-tagged prefixes: IpGenPrefixBase (address and length, unchecked), IpGenPrefix (a
// network of its family), IpGenAddrWithMask (address and length, host bits allowed), and two
// keyed collections of prefixes, a plain value (IpGenPrefixSet) and an entity that tells its
// notifiees about every changed key (IpGenPrefixColl).

#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenAddr.h>
#include <Korva/Types.h>
#include <Mox/Entity.h>
#include <Mox/Text.h>

#include <compare>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Korva {

class IpGenPrefix;

// A family, an address and a length, with no relation enforced between them.
class IpGenPrefixBase {
 public:
  IpGenPrefixBase() noexcept = default;
  IpGenPrefixBase(const IpGenAddr& address, U32 len) noexcept : address_(address), len_(len) {}
  // Reads the generic value form that valueToStrep writes.
  explicit IpGenPrefixBase(std::string_view text) { stringValueIs(text); }

  AddressFamily af() const noexcept { return address_.af(); }
  const IpGenAddr& ipGenAddr() const noexcept { return address_; }
  IpAddr v4Addr() const noexcept { return address_.v4Addr(); }
  const Ip6Addr& v6Addr() const noexcept { return address_.v6Addr(); }
  U32 len() const noexcept { return len_; }

  // Length 32 for IPv4, 128 otherwise.
  bool isHost() const noexcept { return len_ == (address_.isV4() ? 32u : 128u); }
  bool isMulticast() const noexcept { return address_.isMulticast(); }
  bool isLoopback() const noexcept { return address_.isLoopback(); }
  bool isLinkLocal() const noexcept { return address_.isLinkLocal(); }
  bool isUnspecified() const noexcept { return address_.isUnspecified(); }
  bool isReserved() const noexcept { return address_.isReserved(); }

  // The value mix of (IPv4 host-order address, or the Ip6Addr hash) XOR len; 0 for no family.
  U32 hash() const noexcept;
  // The address's sortKey(): IPv4 after most IPv6, unlike operator<.
  U64 sortKey() const noexcept { return address_.sortKey(); }

  // The address, "/" and the length.
  std::string stringValue() const;
  // Reads the generic value form, which must be all of `text`.
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpGenPrefixBase&, const IpGenPrefixBase&) = default;
  // By family, then address area, then length.
  friend auto operator<=>(const IpGenPrefixBase&, const IpGenPrefixBase&) = default;

 protected:
  IpGenAddr address_;
  U32 len_ = 0;
};

// "Value('Korva::IpGenPrefixBase', ** {'af': ipv4, 'address': 10.0.0.0, 'len': 8})"
std::string valueToStrep(const IpGenPrefixBase& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpGenPrefixBase* value);
std::ostream& operator<<(std::ostream& os, const IpGenPrefixBase& value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, const IpGenPrefixBase& value);
void attrLogRead(Mox::AttrLogReader& in, IpGenPrefixBase* value);

// A network of either family: no address bit is set after the first `len` bits.
class IpGenPrefix : public IpGenPrefixBase {
 public:
  IpGenPrefix() noexcept = default;
  // Raise "Invalid IPv4 Prefix Length" above 32 (IPv6: "Invalid IPv6 Prefix Length" above
  // 128) and "Invalid prefix - Non-zero after prefix length" when host bits are set.
  IpGenPrefix(IpAddr address, U32 len);
  IpGenPrefix(const Ip6Addr& address, U32 len);
  IpGenPrefix(const IpGenAddr& address, U32 len);
  IpGenPrefix(const Prefix& prefix) noexcept;
  IpGenPrefix(const Ip6Prefix& prefix) noexcept;
  // The host prefix of the address: length 32 for IPv4, 128 otherwise.
  explicit IpGenPrefix(const IpGenAddr& address) noexcept;
  explicit IpGenPrefix(std::string_view text) { stringValueIs(text); }

  Prefix v4Prefix() const;
  Ip6Prefix v6Prefix() const noexcept { return Ip6Prefix(v6Addr(), len_); }
  explicit operator Prefix() const { return v4Prefix(); }
  explicit operator Ip6Prefix() const noexcept { return v6Prefix(); }

  // The family's prefix test (the IPv4 null-prefix length passes); false for no family.
  bool validAsPrefix() const noexcept;
  bool isDefaultRoutePrefix() const noexcept;
  // Never true across families.
  bool contains(const IpGenAddr& a) const noexcept;
  bool overlaps(const IpGenPrefix& other) const noexcept;

  // The family's prefix text: the address, "/" and the length.
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  // By family, then more specific first within the family. Aborts when the left operand
  // has no family.
  friend std::weak_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b);
};

std::string valueToStrep(const IpGenPrefix& value);
// Detects the family. IPv6 reads as an Ip6Prefix (the length optional); IPv4 reads the
// address and, when a "/" follows anywhere, the length, and demands a valid prefix
// ("Prefix::validAsPrefix != true not allowed"); no family raises "Invalid prefix".
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpGenPrefix* value);
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& value);
void attrLogWrite(Mox::AttrLogWriter& out, const IpGenPrefix& value);
void attrLogRead(Mox::AttrLogReader& in, IpGenPrefix* value);

// An address of either family with a length; host bits may be set.
class IpGenAddrWithMask {
 public:
  IpGenAddrWithMask() noexcept = default;
  // Raise "Invalid IPv4 Prefix Length" above 32, "Invalid IPv6 Prefix Length" above 128.
  IpGenAddrWithMask(IpAddr address, U32 len);
  IpGenAddrWithMask(const Ip6Addr& address, U32 len);
  IpGenAddrWithMask(const IpGenAddr& address, U32 len);
  IpGenAddrWithMask(const IpAddrWithMask& value) noexcept;
  IpGenAddrWithMask(const Ip6AddrWithMask& value) noexcept;
  explicit IpGenAddrWithMask(std::string_view text) { stringValueIs(text); }

  AddressFamily af() const noexcept { return address_.af(); }
  const IpGenAddr& ipGenAddr() const noexcept { return address_; }
  U32 len() const noexcept { return len_; }
  IpAddrWithMask v4AddrWithMask() const noexcept { return {address_.v4Addr(), len_}; }
  Ip6AddrWithMask v6AddrWithMask() const noexcept { return {address_.v6Addr(), len_}; }
  // The address masked to its length, as a prefix; for IPv4 through the Prefix constructor.
  Prefix v4Subnet() const;
  Ip6Prefix v6Subnet() const noexcept;
  IpGenPrefix subnet() const;

  // Same family and the first `len` bits equal.
  bool contains(const IpGenAddr& a) const noexcept;
  U32 hash() const noexcept;

  std::string stringValue() const;
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpGenAddrWithMask&, const IpGenAddrWithMask&) = default;
  // By family, then address, then length. Aborts when the left operand has no family.
  friend std::weak_ordering operator<=>(const IpGenAddrWithMask& a, const IpGenAddrWithMask& b);

 private:
  IpGenAddr address_;
  U32 len_ = 0;
};

std::string valueToStrep(const IpGenAddrWithMask& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpGenAddrWithMask* value);
std::ostream& operator<<(std::ostream& os, const IpGenAddrWithMask& value);
void attrLogWrite(Mox::AttrLogWriter& out, const IpGenAddrWithMask& value);
void attrLogRead(Mox::AttrLogReader& in, IpGenAddrWithMask* value);

}  // namespace Korva

// Declared before the prefix collections, whose maps hash their keys with them.
template <>
struct std::hash<Korva::IpGenPrefixBase> : Korva::ValueHash<Korva::IpGenPrefixBase> {};
template <>
struct std::hash<Korva::IpGenPrefix> : Korva::ValueHash<Korva::IpGenPrefix> {};
template <>
struct std::hash<Korva::IpGenAddrWithMask> : Korva::ValueHash<Korva::IpGenAddrWithMask> {};

namespace Korva {

// A set of prefixes, each carrying a boolean; keys hash with IpGenPrefixBase::hash.
class IpGenPrefixSet {
 public:
  using Map = std::unordered_map<IpGenPrefix, bool>;

  // The boolean of `key`, or nothing when the key is absent.
  std::optional<bool> prefix(const IpGenPrefix& key) const;
  size_t prefixCount() const noexcept { return prefix_.size(); }
  const Map& prefixes() const noexcept { return prefix_; }
  // Inserts the key or overwrites its boolean; true when something changed.
  bool prefixIs(const IpGenPrefix& key, bool value);
  // True when the key was there.
  bool prefixDel(const IpGenPrefix& key);
  void prefixDelAll() noexcept { prefix_.clear(); }

  friend bool operator==(const IpGenPrefixSet&, const IpGenPrefixSet&) = default;

 private:
  Map prefix_;
};

// An entity holding a prefix set; every change of a key is told to the notifiees, once per
// key and only when something changed.
class IpGenPrefixColl : public Mox::Entity {
 public:
  class Notifiee;

  explicit IpGenPrefixColl(Mox::Name name) : Mox::Entity(std::move(name)) {}

  std::optional<bool> prefixSet(const IpGenPrefix& key) const { return set_.prefix(key); }
  size_t prefixSetCount() const noexcept { return set_.prefixCount(); }
  const IpGenPrefixSet& prefixSets() const noexcept { return set_; }
  void prefixSetIs(const IpGenPrefix& key, bool value);
  void prefixSetDel(const IpGenPrefix& key);
  void prefixSetDelAll();
  // Tells every notifiee that `key` changed.
  void prefixSetNotify(const IpGenPrefix& key) const;

 private:
  IpGenPrefixSet set_;
};

class IpGenPrefixColl::Notifiee : public Mox::Entity::NotifieeBase {
 public:
  const IpGenPrefixColl* notifier() const noexcept {
    return static_cast<const IpGenPrefixColl*>(notifierBase());
  }
  void notifierIs(const IpGenPrefixColl* coll) { notifierBaseIs(coll); }

  // `key` was added, changed its boolean or was removed.
  virtual void onPrefixSet(const IpGenPrefix& key) { static_cast<void>(key); }
};

}  // namespace Korva
