#pragma once
// Network-order integers for header structures laid over packet bytes, the Internet
// checksum (RFC 1071) shared by every IP-family header, the pseudo-headers of the
// transport checksums, and the transport header view that fills them in.
//
// A NetU16 holds its value in wire order and has alignment 1, so a packed header of them
// can sit at any byte offset of a packet. value() / valueIs() convert to and from host
// order.

#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/Pkt.h>
#include <Korva/Types.h>
#include <Mox/Text.h>

#include <bit>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>

namespace Korva {

template <class T>
class __attribute__((packed)) NetUInt {
  static_assert(std::is_unsigned_v<T>);

 public:
  using HostType = T;

  constexpr NetUInt() noexcept = default;
  constexpr explicit NetUInt(T host) noexcept : nbo_(Mox::networkOrder(host)) {}

  constexpr T value() const noexcept { return Mox::networkOrder(nbo_); }
  constexpr void valueIs(T host) noexcept { nbo_ = Mox::networkOrder(host); }
  // A bit field of the host-order value: `width` bits from bit `shift` (0 = least
  // significant). Headers split their shared words (flags, offsets, lengths) with these.
  constexpr T field(unsigned shift, unsigned width) const noexcept {
    return T((value() >> shift) & mask(width));
  }
  constexpr void fieldIs(unsigned shift, unsigned width, T v) noexcept {
    T m = T(mask(width) << shift);
    valueIs(T((value() & ~m) | ((v << shift) & m)));
  }
  constexpr bool flag(unsigned bit) const noexcept { return field(bit, 1); }
  constexpr void flagIs(unsigned bit, bool on) noexcept { fieldIs(bit, 1, on); }

  // The bytes as they sit in memory, for code that already works in wire order.
  constexpr T nbo() const noexcept { return nbo_; }
  constexpr void nboIs(T wire) noexcept { nbo_ = wire; }

  friend constexpr bool operator==(NetUInt a, NetUInt b) noexcept { return a.nbo_ == b.nbo_; }
  // As values (model attributes such as a TTL to impose): ordered and hashed by the number.
  friend constexpr auto operator<=>(NetUInt a, NetUInt b) noexcept {
    return a.value() <=> b.value();
  }
  U32 hash() const noexcept { return U32(std::hash<T>()(value())); }

 private:
  static constexpr T mask(unsigned width) noexcept {
    return width >= sizeof(T) * 8 ? T(~T(0)) : T((T(1) << width) - 1);
  }

  T nbo_ = 0;
};

// The text of a network-order integer is its number.
template <class T>
std::string valueToStrep(NetUInt<T> value) {
  return Mox::valueToStrep(value.value());
}
template <class T>
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, NetUInt<T>* value) {
  T host = value->value();
  Mox::sequenceToValue(it, end, &host);
  value->valueIs(host);
}
template <class T>
std::ostream& operator<<(std::ostream& os, NetUInt<T> value) {
  return os << +value.value();
}

using NetU8 = NetUInt<U8>;
using NetU16 = NetUInt<U16>;
using NetU32 = NetUInt<U32>;
using NetU64 = NetUInt<U64>;
static_assert(sizeof(NetU16) == 2 && alignof(NetU16) == 1);
static_assert(sizeof(NetU64) == 8 && alignof(NetU64) == 1);

// A checksum field as stored in a header: wire order.
using IpChecksum = NetU16;

// Adds the 16-bit big-endian words of `bytes` to `partial` without folding and returns the
// new partial sum, so chunks can be chained. `len` must be even.
U32 ipChecksumChunk(const void* bytes, U32 len, U32 partial);

// Finishes a checksum: adds `bytes` (an odd last byte counts as the high byte of a word
// whose low byte is zero) to `partial`, folds the carries back in and complements.
IpChecksum ipChecksumCalc(const void* bytes, U32 len, U32 partial);

// The one-call checksum of a buffer. The result is in memory order: store it into the
// header's checksum field as it is.
U16 ipChksum(const void* bytes, U32 len);

// An IPv6 address from 16 wire-order bytes of a header.
inline Ip6Addr addressAt(const U8* bytes) noexcept {
  Ip6Addr address;
  address.copyFromBuffer(bytes);
  return address;
}

// The IPv4 pseudo-header of the UDP and TCP checksums (12 bytes).
template <U8 Protocol>
struct __attribute__((packed)) Ipv4PseudoHdr {
  NetU32 src;  // address words as IpAddr stores them
  NetU32 dst;
  U8 zero = 0;
  U8 protocol = Protocol;
  NetU16 len;  // of the transport header and payload

  void addressesIs(IpAddr source, IpAddr destination) noexcept {
    src.nboIs(source.valueNbo());
    dst.nboIs(destination.valueNbo());
  }
  void lenIs(U32 bytes) noexcept { len.valueIs(U16(bytes)); }
};

// The IPv6 pseudo-header (RFC 8200, 40 bytes). `udpLen` is the upper-layer length for
// every protocol.
template <U8 Protocol>
struct __attribute__((packed)) Ipv6PseudoHdr {
  U8 src[16] = {};
  U8 dst[16] = {};
  NetU32 udpLen;
  U8 zeros[2] = {};
  U8 zero = 0;
  U8 protocol = Protocol;

  void addressesIs(const Ip6Addr& source, const Ip6Addr& destination) noexcept {
    source.copyToBuffer(src);
    destination.copyToBuffer(dst);
  }
  void lenIs(U32 bytes) noexcept { udpLen.valueIs(bytes); }
};

using UdpPseudoHdr = Ipv4PseudoHdr<17>;
using TcpPseudoHdr = Ipv4PseudoHdr<6>;
using UdpPseudoHdrIpv6 = Ipv6PseudoHdr<17>;
using TcpPseudoHdrIpv6 = Ipv6PseudoHdr<6>;
using Icmp6PseudoHdr = Ipv6PseudoHdr<58>;
static_assert(sizeof(UdpPseudoHdr) == 12 && sizeof(UdpPseudoHdrIpv6) == 40);

// The checksum of `len` bytes of a transport header and its payload behind a pseudo-header.
template <class PseudoHdr>
IpChecksum pseudoHdrChecksum(const PseudoHdr& pseudo, const void* bytes, U32 len) {
  return ipChecksumCalc(bytes, len, ipChecksumChunk(&pseudo, sizeof pseudo, 0));
}

// A transport header view that also knows the IP addresses its checksum covers.
template <class Header, class PseudoHdr, class Address>
class TransportHdrWrapper : public HdrWrapper<Header> {
 public:
  using HdrWrapper<Header>::HdrWrapper;

  const Address& ipSrc() const noexcept { return ipSrc_; }
  void ipSrcIs(const Address& address) noexcept { ipSrc_ = address; }
  const Address& ipDst() const noexcept { return ipDst_; }
  void ipDstIs(const Address& address) noexcept { ipDst_ = address; }

  // The checksum of the header and what follows it in the packet's first data entry, in
  // wire order as the checksum field holds it.
  IpChecksum computedChecksum() const {
    U32 available = this->pkt()->frontBytes() - this->offset();
    PseudoHdr pseudo;
    pseudo.addressesIs(ipSrc_, ipDst_);
    pseudo.lenIs(Header::segmentBytes(*this->header(), available));
    return this->header()->computedChecksum(pseudo, available);
  }
  U16 computedChecksumU16() const { return computedChecksum().value(); }

 private:
  Address ipSrc_{};
  Address ipDst_{};
};

}  // namespace Korva
