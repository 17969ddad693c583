#pragma once
// IPv6 values: an address, an address with a prefix length, a network prefix, an address
// with a full 128-bit mask, and the small prefix-length and byte-index types. Addresses are
// 16 bytes in network order, held as four 32-bit words.

#include <Korva/EthAddr.h>
#include <Korva/IpAddr.h>
#include <Korva/Types.h>
#include <Korva/ValueType.h>
#include <Mox/Text.h>

#include <compare>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Korva {

class Ip6Addr {
 public:
  // The longest text this type prints: eight groups of four digits (never the dotted form).
  static constexpr size_t maxTextSize = 39;

  constexpr Ip6Addr() noexcept = default;
  // From the eight 16-bit groups of the text form, group 0 first.
  constexpr Ip6Addr(U16 g0, U16 g1, U16 g2, U16 g3, U16 g4, U16 g5, U16 g6, U16 g7) noexcept
      : wordsNbo_{detail::swapNbo32(U32(g0) << 16 | g1), detail::swapNbo32(U32(g2) << 16 | g3),
                  detail::swapNbo32(U32(g4) << 16 | g5), detail::swapNbo32(U32(g6) << 16 | g7)} {}
  explicit Ip6Addr(std::string_view text) { stringValueIs(text); }
  // The address that is all of `text`, or nothing.
  static std::optional<Ip6Addr> tryParse(std::string_view text) noexcept;
  static constexpr Ip6Addr fromWords(U32 w0, U32 w1, U32 w2, U32 w3) noexcept {
    Ip6Addr a;
    a.wordsNbo_[0] = detail::swapNbo32(w0);
    a.wordsNbo_[1] = detail::swapNbo32(w1);
    a.wordsNbo_[2] = detail::swapNbo32(w2);
    a.wordsNbo_[3] = detail::swapNbo32(w3);
    return a;
  }

  // The four 32-bit words, in host order and as stored (network order).
  constexpr U32 word0() const noexcept { return word(0); }
  constexpr U32 word1() const noexcept { return word(1); }
  constexpr U32 word2() const noexcept { return word(2); }
  constexpr U32 word3() const noexcept { return word(3); }
  constexpr U32 word0Nbo() const noexcept { return wordsNbo_[0]; }
  constexpr U32 word1Nbo() const noexcept { return wordsNbo_[1]; }
  constexpr U32 word2Nbo() const noexcept { return wordsNbo_[2]; }
  constexpr U32 word3Nbo() const noexcept { return wordsNbo_[3]; }

  // Indexed access in host order: bytes 0..15, groups 0..7, words 0..3, halves 0..1. An index
  // out of range raises RangeException "Ip6Addr::<operation>: index out of range".
  U8 u8(unsigned i) const;
  U16 u16(unsigned i) const;
  U32 u32(unsigned i) const;
  U64 u64(unsigned i) const;
  void u8Is(unsigned i, U8 value);
  void u16Is(unsigned i, U16 value);
  void u32Is(unsigned i, U32 value);
  void u64Is(unsigned i, U64 value);
  void u8Del(unsigned i) { u8Is(i, 0); }
  void u16Del(unsigned i) { u16Is(i, 0); }
  void u32Del(unsigned i) { u32Is(i, 0); }
  void u64Del(unsigned i) { u64Is(i, 0); }

  void copyToBuffer(unsigned char* out) const noexcept { std::memcpy(out, wordsNbo_, 16); }
  void copyFromBuffer(const unsigned char* in) noexcept { std::memcpy(wordsNbo_, in, 16); }

  constexpr bool isMulticast() const noexcept { return (word0() >> 24) == 0xff; }
  constexpr bool isUnicast() const noexcept { return !isMulticast(); }
  constexpr bool isZero() const noexcept {
    return (wordsNbo_[0] | wordsNbo_[1] | wordsNbo_[2] | wordsNbo_[3]) == 0;
  }
  constexpr bool isUnspecified() const noexcept { return isZero(); }
  constexpr bool isLoopback() const noexcept {
    return (wordsNbo_[0] | wordsNbo_[1] | wordsNbo_[2]) == 0 && word3() == 1;
  }
  constexpr bool isLoopbackBase() const noexcept { return false; }
  // fe80:0:0:0 exactly in the first 64 bits.
  constexpr bool isLinkLocalUnicast() const noexcept {
    return word0() == 0xfe800000 && word1() == 0;
  }
  // Anywhere in fe80::/10.
  constexpr bool isLinkLocalUnicast2() const noexcept {
    return (word0() & 0xffc00000) == 0xfe800000;
  }
  // Link-local unicast, or multicast of link scope.
  constexpr bool isLinkLocal() const noexcept {
    return isLinkLocalUnicast() || (word0() & 0xff0f0000) == 0xff020000;
  }
  constexpr bool isGlobalUnicast() const noexcept {
    return !isMulticast() && !isUnspecified() && !isLoopback() && !isLinkLocalUnicast2();
  }
  bool isSiteLocal() const noexcept;
  bool isUniqueLocal() const noexcept;
  bool isPimRouters() const noexcept;

  // ff02::1:ff00:0 with the last three bytes of this address.
  Ip6Addr solicitedNodeMulticastAddr() const noexcept;
  // The Ethernet multicast address 33:33 followed by the last four bytes of this address.
  EthAddr mcastEtherAddress() const noexcept {
    return EthAddr(0x3333, static_cast<U16>(word3() >> 16), static_cast<U16>(word3()));
  }
  // For an address in fe80::/10: fe80:: with this address's low 64 bits; otherwise raises
  // "Not an address that belongs to subnet fe80::/10".
  Ip6Addr validLlUnicastAddress() const;
  // This address with every bit after the first `len` cleared.
  Ip6Addr ip6AddrMaskedByLength(U32 len) const noexcept;
  // Leading bits shared with `other`, 0..128.
  unsigned longestCommonPrefix(const Ip6Addr& other) const noexcept;
  U32 hash() const noexcept;

  std::string stringValue() const;
  // Replaces the value with the text, which must be all of `text`; otherwise raises the
  // reader's RangeException (or "Ip6Addr: unexpected trailing characters") and keeps it.
  void stringValueIs(std::string_view text);
  // Writes the compressed lower-case text (at most maxTextSize characters), returns its end.
  char* toChars(char* out) const noexcept;

  friend constexpr bool operator==(const Ip6Addr&, const Ip6Addr&) noexcept = default;
  // The 16 bytes as one big-endian number.
  friend constexpr std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    for (int i = 0; i < 4; ++i) {
      if (a.wordsNbo_[i] != b.wordsNbo_[i]) return a.word(i) <=> b.word(i);
    }
    return std::strong_ordering::equal;
  }

 private:
  constexpr U32 word(int i) const noexcept { return detail::swapNbo32(wordsNbo_[i]); }
  constexpr void wordIs(int i, U32 value) noexcept { wordsNbo_[i] = detail::swapNbo32(value); }

  U32 wordsNbo_[4] = {};
};

std::string valueToStrep(const Ip6Addr& value);
// Reads one address at `it` and leaves `it` after it; text after the address (at the first
// character that is not a hex digit, ':' or '.') is left to the caller. On failure raises
// RangeException and leaves `it` and the value unchanged.
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6Addr* value);
std::ostream& operator<<(std::ostream& os, const Ip6Addr& value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6Addr& value);
void attrLogRead(Mox::AttrLogReader& in, Ip6Addr* value);

// An address with a prefix length; host bits may be set.
class Ip6AddrWithMask {
 public:
  constexpr Ip6AddrWithMask() noexcept = default;
  constexpr Ip6AddrWithMask(const Ip6Addr& address, U32 len) noexcept
      : address_(address), len_(len) {}
  explicit Ip6AddrWithMask(std::string_view text) { stringValueIs(text); }

  const Ip6Addr& address() const noexcept { return address_; }
  void addressIs(const Ip6Addr& address) noexcept { address_ = address; }
  U32 len() const noexcept { return len_; }
  void lenIs(U32 len) noexcept { len_ = len; }

  // Nothing for a length above 128; everything for 0; else the first `len` bits match.
  bool contains(const Ip6Addr& a) const noexcept;
  // No address bit is set after the first `len` bits (a length above 128 passes when it is
  // a multiple of 8).
  bool validAsPrefix() const noexcept;
  // The first min(len, other.len) bits of both addresses agree.
  bool overlaps(const Ip6AddrWithMask& other) const noexcept;
  Ip6AddrWithMask subnet() const noexcept;
  U32 hash() const noexcept { return valueHashMix(address_.hash() ^ len_); }

  std::string stringValue() const;
  // Address, then optionally "/" and a length below 129 (128 without it).
  void stringValueIs(std::string_view text);

  friend bool operator==(const Ip6AddrWithMask&, const Ip6AddrWithMask&) = default;
  // More specific first: when the shorter value contains the longer one's address, the
  // longer is less; otherwise the addresses decide.
  friend std::weak_ordering operator<=>(const Ip6AddrWithMask& a,
                                        const Ip6AddrWithMask& b) noexcept;

 private:
  Ip6Addr address_;
  U32 len_ = 0;
};

std::string valueToStrep(const Ip6AddrWithMask& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6AddrWithMask* value);
std::ostream& operator<<(std::ostream& os, const Ip6AddrWithMask& value);
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrWithMask& value);
void attrLogRead(Mox::AttrLogReader& in, Ip6AddrWithMask* value);

// An address with a prefix length meant as a network. Text is read as for Ip6AddrWithMask
// and stored unchecked; the length 4294967295 marks the null prefix.
class Ip6Prefix : public Ip6AddrWithMask {
 public:
  static constexpr U32 nullPrefixLen = 0xffffffff;

  constexpr Ip6Prefix() noexcept = default;
  constexpr Ip6Prefix(const Ip6Addr& address, U32 len) noexcept : Ip6AddrWithMask(address, len) {}
  explicit Ip6Prefix(std::string_view text) { stringValueIs(text); }
  static constexpr Ip6Prefix nullPrefix() noexcept { return Ip6Prefix(Ip6Addr(), nullPrefixLen); }

  bool isNullPrefix() const noexcept { return len() == nullPrefixLen; }
  bool validAsPrefix() const noexcept { return isNullPrefix() || Ip6AddrWithMask::validAsPrefix(); }
  // One contains the other's address.
  bool overlaps(const Ip6Prefix& other) const noexcept {
    return contains(other.address()) || other.contains(address());
  }
  bool isDefaultRoutePrefix() const noexcept { return len() == 0 && address().isZero(); }
  bool isHostRoutePrefix() const noexcept { return len() == 128; }
  // This network's address with the host part `host`; raises "Host address too long" when
  // `host` reaches into the network bits.
  Ip6Addr subnetHost(const Ip6Addr& host) const;

  friend bool operator==(const Ip6Prefix&, const Ip6Prefix&) = default;
  // The order of Ip6AddrWithMask.
  friend std::weak_ordering operator<=>(const Ip6Prefix&, const Ip6Prefix&) = default;
};

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6Prefix* value);

// A prefix length 0..128, or 129 for "no prefix form".
class Ip6PrefixLen {
 public:
  static constexpr U8 min = 0;
  static constexpr U8 max = 128;
  static constexpr U8 invalid = 129;

  constexpr Ip6PrefixLen() noexcept = default;
  // Raises "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed"
  // above 129.
  explicit Ip6PrefixLen(unsigned value) { valueIs(value); }

  U8 value() const noexcept { return value_; }
  void valueIs(unsigned value);
  bool isValid() const noexcept { return value_ != invalid; }
  U32 hash() const noexcept { return valueHashMix(value_); }

  friend bool operator==(const Ip6PrefixLen&, const Ip6PrefixLen&) = default;
  friend auto operator<=>(const Ip6PrefixLen&, const Ip6PrefixLen&) = default;

 private:
  U8 value_ = 0;
};

std::string valueToStrep(const Ip6PrefixLen& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6PrefixLen* value);
std::ostream& operator<<(std::ostream& os, const Ip6PrefixLen& value);
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6PrefixLen& value);
void attrLogRead(Mox::AttrLogReader& in, Ip6PrefixLen* value);

// A byte index into an address, used as a collection key.
class Ip6AddrU8Key {
 public:
  constexpr Ip6AddrU8Key() noexcept = default;
  constexpr explicit Ip6AddrU8Key(U8 value) noexcept : value_(value) {}

  U8 value() const noexcept { return value_; }
  U32 hash() const noexcept { return valueHashMix(value_); }

  friend bool operator==(const Ip6AddrU8Key&, const Ip6AddrU8Key&) = default;
  friend auto operator<=>(const Ip6AddrU8Key&, const Ip6AddrU8Key&) = default;

 private:
  U8 value_ = 0;
};

std::string valueToStrep(const Ip6AddrU8Key& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6AddrU8Key* value);
std::ostream& operator<<(std::ostream& os, const Ip6AddrU8Key& value);
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrU8Key& value);
void attrLogRead(Mox::AttrLogReader& in, Ip6AddrU8Key* value);

// An address with a 128-bit mask that need not be contiguous.
class Ip6AddrWithFullMask {
 public:
  Ip6AddrWithFullMask() noexcept = default;
  Ip6AddrWithFullMask(const Ip6Addr& address, const Ip6Addr& mask) noexcept
      : address_(address), mask_(mask) {}
  explicit Ip6AddrWithFullMask(std::string_view text) { stringValueIs(text); }

  const Ip6Addr& address() const noexcept { return address_; }
  void addressIs(const Ip6Addr& address) noexcept { address_ = address; }
  const Ip6Addr& mask() const noexcept { return mask_; }
  void maskIs(const Ip6Addr& mask) noexcept { mask_ = mask; }

  // The mask's length when it is contiguous from the top, else Ip6PrefixLen::invalid.
  Ip6PrefixLen prefixLen() const noexcept;
  bool hasPrefixRepr() const noexcept { return prefixLen().isValid(); }
  // MurmurHash3 over the hashes of the address and of the mask.
  U32 hash() const noexcept;

  // The unmasked address, "/", and the length or (for a non-contiguous mask) the mask.
  std::string stringValue() const;
  // An address, "/", and the mask as an address.
  void stringValueIs(std::string_view text);

  friend bool operator==(const Ip6AddrWithFullMask&, const Ip6AddrWithFullMask&) = default;
  // By address, then by mask.
  friend auto operator<=>(const Ip6AddrWithFullMask&, const Ip6AddrWithFullMask&) = default;

 private:
  Ip6Addr address_;
  Ip6Addr mask_;
};

std::string valueToStrep(const Ip6AddrWithFullMask& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Ip6AddrWithFullMask* value);
std::ostream& operator<<(std::ostream& os, const Ip6AddrWithFullMask& value);
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrWithFullMask& value);
void attrLogRead(Mox::AttrLogReader& in, Ip6AddrWithFullMask* value);

// Well-known addresses and prefixes.
inline constexpr Ip6Addr ip6AddrZero{};
inline constexpr Ip6Addr ip6AddrLoopback(0, 0, 0, 0, 0, 0, 0, 1);
inline constexpr Ip6Addr ip6AddrAllNodes(0xff02, 0, 0, 0, 0, 0, 0, 1);
inline constexpr Ip6Addr ip6AddrAllRouters(0xff02, 0, 0, 0, 0, 0, 0, 2);
inline constexpr Ip6Addr ip6AddrAllHosts(0xff02, 0, 0, 0, 0, 0, 0, 3);
inline constexpr Ip6Addr ip6AddrVrrp(0xff02, 0, 0, 0, 0, 0, 0, 0x12);
inline constexpr Ip6Addr ip6AddrPimRouters(0xff02, 0, 0, 0, 0, 0, 0, 0xd);
inline constexpr Ip6Addr ip6AddrMld(0xff02, 0, 0, 0, 0, 0, 0, 0x16);
inline constexpr Ip6Addr ip6AddrLinkLocalBase(0xff02, 0, 0, 0, 0, 0, 0, 0);
inline constexpr Ip6Prefix ip6LinkLocalPrefix(Ip6Addr(0xfe80, 0, 0, 0, 0, 0, 0, 0), 10);

}  // namespace Korva

template <>
struct std::hash<Korva::Ip6Addr> : Korva::ValueHash<Korva::Ip6Addr> {};
template <>
struct std::hash<Korva::Ip6AddrWithMask> : Korva::ValueHash<Korva::Ip6AddrWithMask> {};
template <>
struct std::hash<Korva::Ip6Prefix> : Korva::ValueHash<Korva::Ip6Prefix> {};
template <>
struct std::hash<Korva::Ip6PrefixLen> : Korva::ValueHash<Korva::Ip6PrefixLen> {};
template <>
struct std::hash<Korva::Ip6AddrU8Key> : Korva::ValueHash<Korva::Ip6AddrU8Key> {};
template <>
struct std::hash<Korva::Ip6AddrWithFullMask> : Korva::ValueHash<Korva::Ip6AddrWithFullMask> {};
