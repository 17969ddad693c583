#pragma once
// IPv4 values: an address, an address with a prefix length, a network prefix and an address
// with a full 32-bit mask. Addresses are stored in network byte order and compared, masked
// and hashed on their host-order value.

#include <Korva/Types.h>
#include <Mox/AttrLog.h>
#include <Korva/ValueType.h>
#include <Mox/Text.h>

#include <bit>
#include <compare>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Korva {

namespace detail {

// Network to host order and back (the same swap both ways).
constexpr U32 swapNbo32(U32 value) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return __builtin_bswap32(value);
  } else {
    return value;
  }
}

// The host-order mask of the first `len` bits; every bit for a length of 32 or more.
constexpr U32 leadingBitsMask(U32 len) noexcept {
  return len == 0 ? 0u : len >= 32 ? ~0u : ~0u << (32 - len);
}

// Writes `n` in decimal (at most 10 characters) and returns the end.
char* writeDecimal(char* out, U32 n) noexcept;

}  // namespace detail

class IpAddr {
 public:
  // The longest dotted text, 255.255.255.255.
  static constexpr size_t maxTextSize = 15;

  constexpr IpAddr() noexcept = default;
  // From the stored word: the four octets in network byte order.
  constexpr explicit IpAddr(U32 valueNbo) noexcept : valueNbo_(valueNbo) {}
  constexpr IpAddr(U8 a, U8 b, U8 c, U8 d) noexcept
      : valueNbo_(detail::swapNbo32(U32(a) << 24 | U32(b) << 16 | U32(c) << 8 | d)) {}
  explicit IpAddr(std::string_view text) { stringValueIs(text); }
  // The dotted text that is all of `text`, or nothing.
  static std::optional<IpAddr> tryParse(std::string_view text) noexcept;
  static constexpr IpAddr fromHostOrder(U32 value) noexcept {
    return IpAddr(detail::swapNbo32(value));
  }

  constexpr U32 valueNbo() const noexcept { return valueNbo_; }
  // Host order: the first octet is the most significant byte.
  constexpr U32 value() const noexcept { return detail::swapNbo32(valueNbo_); }
  void copyToBuffer(unsigned char* out) const noexcept { std::memcpy(out, &valueNbo_, 4); }

  constexpr bool isMulticast() const noexcept { return (value() >> 28) == 0xe; }
  constexpr bool isUnicast() const noexcept { return !isMulticast() && value() != ~0u; }
  constexpr bool isReservedMulticast() const noexcept { return (value() >> 8) == 0xe00000; }
  constexpr bool isLoopback() const noexcept { return (value() >> 24) == 127; }
  constexpr bool isLoopbackBase() const noexcept { return value() == 0x7f000000; }
  constexpr bool isReserved() const noexcept { return (value() >> 28) == 0xf && value() != ~0u; }
  // Each network doubles as its own mask, so this accepts more than the RFC 1918 ranges
  // (11.0.0.1, 175.48.0.1); callers rely on exactly this test.
  constexpr bool isPrivate() const noexcept {
    const U32 a = value();
    return (a & 0x0a000000) == 0x0a000000 || (a & 0xac100000) == 0xac100000 ||
           (a & 0xc0a80000) == 0xc0a80000;
  }
  constexpr bool isLinkLocal() const noexcept { return (value() >> 16) == 0xa9fe; }
  constexpr bool isLinkLocalUnicast() const noexcept { return isLinkLocal(); }
  constexpr bool isPimRouters() const noexcept { return value() == 0xe000000d; }
  constexpr bool isThisNetwork() const noexcept { return (value() >> 24) == 0; }

  constexpr U32 hash() const noexcept { return valueHashMix(valueNbo_); }
  // Leading bits shared with `other`, 0..32.
  constexpr unsigned longestCommonPrefix(IpAddr other) const noexcept {
    return static_cast<unsigned>(std::countl_zero(value() ^ other.value()));
  }

  std::string stringValue() const;
  // Replaces the value with the dotted text, which must be all of `text`; otherwise raises
  // RangeException "Invalid IpAddr" and keeps the value.
  void stringValueIs(std::string_view text);
  // Writes the dotted text (at most maxTextSize characters) and returns its end.
  char* toChars(char* out) const noexcept;

  // Reads one dotted address at `it` and returns its network-order word, leaving `it` after
  // the fourth octet; what follows is not examined. Raises "Invalid IpAddr" and leaves `it`
  // unchanged when no address is there.
  static U32 sequenceToValueNbo(Mox::TextIter& it, Mox::TextIter end);

  friend constexpr bool operator==(IpAddr a, IpAddr b) noexcept = default;
  // Numeric order of the host-order value: 10.0.0.1 < 10.0.0.2 < 11.0.0.0.
  friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) noexcept {
    return a.value() <=> b.value();
  }

 private:
  U32 valueNbo_ = 0;
};

std::string valueToStrep(IpAddr value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpAddr* value);
std::ostream& operator<<(std::ostream& os, IpAddr value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, IpAddr value);
void attrLogRead(Mox::AttrLogReader& in, IpAddr* value);

// Reads "/" and a decimal prefix length, unchecked (a run too long for 32 bits reads as
// 4294967295); raises "premature end of Prefix type" unless "/" and a digit are next.
U32 sequenceToPrefixLen(Mox::TextIter& it, Mox::TextIter end);

// An address with a prefix length; host bits may be set and the length is not checked.
class IpAddrWithMask {
 public:
  IpAddrWithMask() noexcept = default;
  IpAddrWithMask(IpAddr address, U32 len) noexcept : address_(address), len_(len) {}
  explicit IpAddrWithMask(std::string_view text) { stringValueIs(text); }

  IpAddr address() const noexcept { return address_; }
  void addressIs(IpAddr address) noexcept { address_ = address; }
  U32 len() const noexcept { return len_; }
  void lenIs(U32 len) noexcept { len_ = len; }

  U32 hash() const noexcept { return valueHashMix(address_.value() ^ len_); }

  std::string stringValue() const;
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpAddrWithMask&, const IpAddrWithMask&) = default;
  // By address, then by length.
  friend auto operator<=>(const IpAddrWithMask&, const IpAddrWithMask&) = default;

 private:
  IpAddr address_;
  U32 len_ = 0;
};

std::string valueToStrep(const IpAddrWithMask& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpAddrWithMask* value);
std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& value);
void attrLogWrite(Mox::AttrLogWriter& out, const IpAddrWithMask& value);
void attrLogRead(Mox::AttrLogReader& in, IpAddrWithMask* value);

// A network: no address bit is set after the first `len` bits. The length 4294967295 marks
// the null prefix.
class Prefix {
 public:
  static constexpr U32 nullPrefixLen = 0xffffffff;

  Prefix() noexcept = default;
  // Raises "Prefix::validAsPrefix != true not allowed" when host bits are set or the length
  // is above 32 (the null-prefix length excepted).
  Prefix(IpAddr address, U32 len);
  explicit Prefix(std::string_view text) { stringValueIs(text); }

  IpAddr address() const noexcept { return address_; }
  U32 len() const noexcept { return len_; }

  bool validAsPrefix() const noexcept;
  bool contains(IpAddr a) const noexcept;
  // This network's address with the host part `host`; raises "Host address too long" when
  // `host` reaches into the network bits.
  IpAddr subnetHost(IpAddr host) const;
  bool isHost() const noexcept { return len_ == 32; }
  bool isUnicast() const noexcept { return address_.isUnicast(); }
  U32 hash() const noexcept { return valueHashMix(address_.value() ^ len_); }

  std::string stringValue() const;
  // Raises "Invalid Prefix - non-zero after prefixlen" unless the text is exactly a valid
  // prefix (besides the address and length readers' own failures).
  void stringValueIs(std::string_view text);

  friend bool operator==(const Prefix&, const Prefix&) = default;
  // More specific first: of two nested prefixes the longer sorts first; otherwise by address.
  friend std::weak_ordering operator<=>(const Prefix& a, const Prefix& b) noexcept;

 private:
  IpAddr address_;
  U32 len_ = 0;
};

std::string valueToStrep(const Prefix& value);
// Makes the parser's length and host-bit test but leaves any text after the length alone.
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Prefix* value);
std::ostream& operator<<(std::ostream& os, const Prefix& value);
void attrLogWrite(Mox::AttrLogWriter& out, const Prefix& value);
void attrLogRead(Mox::AttrLogReader& in, Prefix* value);

// An address with a 32-bit mask that need not be contiguous. The mask is a host-order number
// (255.255.255.0 is 0xffffff00), unlike the address.
class IpAddrWithFullMask {
 public:
  IpAddrWithFullMask() noexcept = default;
  IpAddrWithFullMask(IpAddr address, U32 mask) noexcept : address_(address), mask_(mask) {}
  // Reads the generic value form that valueToStrep writes.
  explicit IpAddrWithFullMask(std::string_view text) { stringValueIs(text); }

  IpAddr address() const noexcept { return address_; }
  void addressIs(IpAddr address) noexcept { address_ = address; }
  U32 mask() const noexcept { return mask_; }
  void maskIs(U32 mask) noexcept { mask_ = mask; }

  U32 hash() const noexcept { return valueHashMix(address_.value() ^ mask_); }

  // The masked address and length for a contiguous mask (10.1.2.0/24), else the address
  // and the dotted mask (10.1.2.3/255.0.255.0).
  std::string stringValue() const;
  // Reads the generic value form, which must be all of `text`.
  void stringValueIs(std::string_view text);

  friend bool operator==(const IpAddrWithFullMask&, const IpAddrWithFullMask&) = default;
  // By address, then by the mask as a number.
  friend auto operator<=>(const IpAddrWithFullMask&, const IpAddrWithFullMask&) = default;

 private:
  IpAddr address_;
  U32 mask_ = 0;
};

// "Value('Korva::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 4294967040})"
std::string valueToStrep(const IpAddrWithFullMask& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IpAddrWithFullMask* value);
std::ostream& operator<<(std::ostream& os, const IpAddrWithFullMask& value);
void attrLogWrite(Mox::AttrLogWriter& out, const IpAddrWithFullMask& value);
void attrLogRead(Mox::AttrLogReader& in, IpAddrWithFullMask* value);

}  // namespace Korva

template <>
struct std::hash<Korva::IpAddr> : Korva::ValueHash<Korva::IpAddr> {};
template <>
struct std::hash<Korva::IpAddrWithMask> : Korva::ValueHash<Korva::IpAddrWithMask> {};
template <>
struct std::hash<Korva::Prefix> : Korva::ValueHash<Korva::Prefix> {};
template <>
struct std::hash<Korva::IpAddrWithFullMask> : Korva::ValueHash<Korva::IpAddrWithFullMask> {};
