#pragma once
// A family-tagged address that holds either an IPv4 or an IPv6 address, so code that handles
// both families keeps one type. Every IPv4 value sorts before every IPv6 value.

#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/Types.h>
#include <Mox/Text.h>

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Korva {

enum class AddressFamily : U32 { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

// The enumerator name: "ipunknown", "ipv4" or "ipv6".
std::string valueToStrep(AddressFamily af);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, AddressFamily* af);
std::ostream& operator<<(std::ostream& os, AddressFamily af);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, AddressFamily value);
void attrLogRead(Mox::AttrLogReader& in, AddressFamily* value);

// The family of the address text at `it`: the first ':' means IPv6 and the first '.' IPv4;
// a '/' before either, or neither at all, means no family.
AddressFamily sequenceToAfHint(Mox::TextIter it, Mox::TextIter end) noexcept;

class IpGenAddr {
 public:
  // The family unknown and the address all zeros.
  IpGenAddr() noexcept = default;
  IpGenAddr(IpAddr address) noexcept { v4AddrIs(address); }
  IpGenAddr(const Ip6Addr& address) noexcept { v6AddrIs(address); }
  // That family, with a zero address.
  explicit IpGenAddr(AddressFamily af) noexcept : af_(af) {}
  explicit IpGenAddr(std::string_view text) { stringValueIs(text); }

  AddressFamily af() const noexcept { return af_; }
  bool isV4() const noexcept { return af_ == AddressFamily::ipv4; }
  bool isV6() const noexcept { return af_ == AddressFamily::ipv6; }

  // The IPv4 view: the first four bytes of the address area.
  IpAddr v4Addr() const noexcept { return IpAddr(area_.word0Nbo()); }
  // The IPv6 view: the whole area.
  const Ip6Addr& v6Addr() const noexcept { return area_; }
  // The 16-byte area whatever the family.
  const Ip6Addr& privateV6Addr() const noexcept { return area_; }
  // Set the address and, with it, the family.
  void v4AddrIs(IpAddr address) noexcept;
  void v6AddrIs(const Ip6Addr& address) noexcept;

  bool isAddrZero() const noexcept { return area_.isZero(); }
  // A 64-bit key: IPv4 as all ones above the host-order address, IPv6 as its first two
  // host-order words, 0 for no family. Unlike operator<, it puts IPv4 after most IPv6.
  U64 sortKey() const noexcept;

  // 4 bytes for IPv4, else 16.
  size_t size() const noexcept { return isV4() ? 4 : 16; }
  // The size() bytes in network order.
  std::string bytes() const;
  void copyToBuffer(unsigned char* out) const noexcept;

  // The IPv4 test for IPv4 addresses, else the IPv6 one (an unknown family answers as ::).
  bool isUnicast() const noexcept;
  bool isMulticast() const noexcept;
  bool isLoopback() const noexcept;
  bool isLoopbackBase() const noexcept;
  bool isLinkLocal() const noexcept;
  bool isLinkLocalUnicast() const noexcept;
  bool isUnspecified() const noexcept;
  bool isPimRouters() const noexcept;
  // The IPv4 test; false for other families.
  bool isReserved() const noexcept { return isV4() && v4Addr().isReserved(); }

  unsigned longestCommonPrefix(const IpGenAddr& other) const noexcept;
  // The family's address hash; 0 for no family.
  U32 hash() const noexcept;

  // Dotted for IPv4, otherwise the IPv6 text ("::" for no family).
  std::string stringValue() const;
  // Detects the family and reads the whole text as that family's address; raises
  // "Invalid IpGenAddr" when no family shows.
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpGenAddr&, const IpGenAddr&) = default;
  // By family as a number, then by the address area in Ip6Addr order.
  friend auto operator<=>(const IpGenAddr&, const IpGenAddr&) = default;

 private:
  AddressFamily af_ = AddressFamily::ipunknown;
  Ip6Addr area_;
};

std::string valueToStrep(const IpGenAddr& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpGenAddr* value);
std::ostream& operator<<(std::ostream& os, const IpGenAddr& value);
void attrLogWrite(Mox::AttrLogWriter& out, const IpGenAddr& value);
void attrLogRead(Mox::AttrLogReader& in, IpGenAddr* value);

}  // namespace Korva

template <>
struct std::hash<Korva::IpGenAddr> : Korva::ValueHash<Korva::IpGenAddr> {};
