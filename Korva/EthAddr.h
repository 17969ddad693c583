#pragma once
// Ethernet (MAC-48) addresses and EUI-64 identifiers.
//
// Both read the same text forms: six (or eight) hexadecimal bytes separated by ":" or "-",
// or groups of two bytes separated by "." (0011.2233.4455). Both print lower-case
// colon-separated bytes. A failed parse raises Mox::RangeException and changes nothing.

#include <Korva/IpAddr.h>
#include <Korva/Types.h>
#include <Korva/ValueType.h>
#include <Mox/AttrLog.h>
#include <Mox/Exception.h>

#include <array>
#include <compare>
#include <cstring>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Korva {

// Reads `count` bytes (6 or 8) of Ethernet-style text at `it` into `bytes` and leaves `it`
// after the last field; nothing after it is examined. On failure raises RangeException
// "Invalid EthAddr" and leaves `it` and `bytes` unchanged.
void sequenceToWords(Mox::TextIter& it, Mox::TextIter end, U8* bytes, unsigned count);

class Eui64;

class EthAddr {
 public:
  static constexpr unsigned byteCount = 6;

  constexpr EthAddr() = default;
  // From the three words in host order: EthAddr(0x0011, 0x2233, 0x4455) is 00:11:22:33:44:55.
  constexpr EthAddr(U16 word0, U16 word1, U16 word2)
      : bytes_{U8(word0 >> 8), U8(word0), U8(word1 >> 8), U8(word1), U8(word2 >> 8), U8(word2)} {}
  // From six bytes in wire order.
  static EthAddr fromBuffer(const unsigned char* bytes) noexcept {
    EthAddr addr;
    std::memcpy(addr.bytes_.data(), bytes, byteCount);
    return addr;
  }
  explicit EthAddr(std::string_view text) { stringValueIs(text); }
  // The address that is all of `text`, or nothing.
  static std::optional<EthAddr> tryParse(std::string_view text) noexcept;

  U16 word(unsigned index) const;
  void wordIs(unsigned index, U16 value);
  void wordDel(unsigned index) { wordIs(index, 0); }
  U8 byte(unsigned index) const;
  void byteIs(unsigned index, U8 value);
  void byteDel(unsigned index) { byteIs(index, 0); }

  // The longest text, the colon form.
  static constexpr size_t maxTextSize = 17;

  std::string stringValue() const;
  // Writes the colon text (maxTextSize characters) and returns its end.
  char* toChars(char* out) const noexcept;
  // The dotted three-group form, 0011.2233.4455.
  std::string displayString() const;
  void stringValueIs(std::string_view text);

  bool isBroadcast() const noexcept;
  bool isUnicast() const noexcept { return (bytes_[0] & 1) == 0; }
  bool isMulticast() const noexcept { return !isUnicast() && !isBroadcast(); }
  bool isIp6Multicast() const noexcept { return bytes_[0] == 0x33 && bytes_[1] == 0x33; }

  U32 oui() const noexcept { return U32(bytes_[0]) << 16 | U32(bytes_[1]) << 8 | bytes_[2]; }
  U32 station() const noexcept { return U32(bytes_[3]) << 16 | U32(bytes_[4]) << 8 | bytes_[5]; }
  // b0:b1:b2:ff:ff:b3:b4:b5, the MAC-48 encapsulation; the universal/local bit is kept as is.
  Eui64 eui64() const noexcept;

  void copyToBuffer(unsigned char* out) const noexcept {
    std::memcpy(out, bytes_.data(), byteCount);
  }
  U32 hash() const noexcept;

  // Inline loads: the array's own comparison is a call to memcmp, on every map update.
  friend bool operator==(const EthAddr& a, const EthAddr& b) noexcept {
    return std::memcmp(a.bytes_.data(), b.bytes_.data(), byteCount) == 0;
  }
  friend auto operator<=>(const EthAddr&, const EthAddr&) = default;

 private:
  U16 rawWord(unsigned index) const noexcept {
    return U16(bytes_[2 * index] << 8 | bytes_[2 * index + 1]);
  }

  // Wire order; the derived comparisons therefore follow word 0, word 1, word 2.
  std::array<U8, byteCount> bytes_{};
};

std::string valueToStrep(const EthAddr& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, EthAddr* value);
std::ostream& operator<<(std::ostream& os, const EthAddr& value);
// The attribute-log form (see Mox/AttrLog.h).
// The bytes in wire order, inline: an address is a field of many streamed values.
inline void attrLogWrite(Mox::AttrLogWriter& out, const EthAddr& value) {
  unsigned char bytes[EthAddr::byteCount];
  value.copyToBuffer(bytes);
  out.bytes(bytes, sizeof(bytes));
}
inline void attrLogRead(Mox::AttrLogReader& in, EthAddr* value) {
  *value = EthAddr::fromBuffer(
      reinterpret_cast<const unsigned char*>(in.bytes(EthAddr::byteCount).data()));
}

// Index of a byte of an Eui64, 0..7.
using Eui64U8Key = U8;

class Eui64 {
 public:
  static constexpr unsigned byteCount = 8;

  constexpr Eui64() = default;
  static Eui64 fromBuffer(const unsigned char* bytes) noexcept {
    Eui64 addr;
    std::memcpy(addr.bytes_.data(), bytes, byteCount);
    return addr;
  }
  explicit Eui64(std::string_view text) { stringValueIs(text); }
  static std::optional<Eui64> tryParse(std::string_view text) noexcept;

  U8 byte(Eui64U8Key index) const;
  void byteIs(Eui64U8Key index, U8 value);
  void byteDel(Eui64U8Key index) { byteIs(index, 0); }
  void byteDelAll() noexcept { bytes_ = {}; }
  // The four network-order 16-bit words, in host order.
  U16 word(unsigned index) const;
  void wordIs(unsigned index, U16 value);

  static constexpr size_t maxTextSize = 23;

  std::string stringValue() const;
  // Writes the colon text (maxTextSize characters) and returns its end.
  char* toChars(char* out) const noexcept;
  void stringValueIs(std::string_view text);

  void copyToBuffer(unsigned char* out) const noexcept {
    std::memcpy(out, bytes_.data(), byteCount);
  }
  U32 hash() const noexcept;

  friend bool operator==(const Eui64&, const Eui64&) = default;
  friend auto operator<=>(const Eui64&, const Eui64&) = default;

 private:
  U16 rawWord(unsigned index) const noexcept {
    return U16(bytes_[2 * index] << 8 | bytes_[2 * index + 1]);
  }

  std::array<U8, byteCount> bytes_{};
};

std::string valueToStrep(const Eui64& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Eui64* value);
std::ostream& operator<<(std::ostream& os, const Eui64& value);
// The bytes in wire order.
inline void attrLogWrite(Mox::AttrLogWriter& out, const Eui64& value) {
  unsigned char bytes[Eui64::byteCount];
  value.copyToBuffer(bytes);
  out.bytes(bytes, sizeof(bytes));
}
inline void attrLogRead(Mox::AttrLogReader& in, Eui64* value) {
  *value =
      Eui64::fromBuffer(reinterpret_cast<const unsigned char*>(in.bytes(Eui64::byteCount).data()));
}

// The Ethernet group of an IPv4 multicast group: 01:00:5e and the group's low 23 bits.
EthAddr ipMcastMacAddr(IpAddr group) noexcept;

}  // namespace Korva

template <>
struct std::hash<Korva::EthAddr> : Korva::ValueHash<Korva::EthAddr> {};
template <>
struct std::hash<Korva::Eui64> : Korva::ValueHash<Korva::Eui64> {};
