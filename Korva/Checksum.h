#pragma once
// Network-order integers for header structures laid over packet bytes, and the Internet
// checksum (RFC 1071) shared by every IP-family header.
//
// A NetU16 holds its value in wire order and has alignment 1, so a packed header of them
// can sit at any byte offset of a packet. value() / valueIs() convert to and from host
// order.

#include <Mox/Types.h>

#include <bit>
#include <type_traits>

namespace Korva {

template <class T>
class __attribute__((packed)) NetUInt {
  static_assert(std::is_unsigned_v<T>);

 public:
  using HostType = T;

  constexpr NetUInt() noexcept = default;
  constexpr explicit NetUInt(T host) noexcept : nbo_(toggle(host)) {}

  constexpr T value() const noexcept { return toggle(nbo_); }
  constexpr void valueIs(T host) noexcept { nbo_ = toggle(host); }
  // The bytes as they sit in memory, for code that already works in wire order.
  constexpr T nbo() const noexcept { return nbo_; }
  constexpr void nboIs(T wire) noexcept { nbo_ = wire; }

  friend constexpr bool operator==(NetUInt a, NetUInt b) noexcept { return a.nbo_ == b.nbo_; }

 private:
  // Host to network and back are the same swap (or none on a big-endian host).
  static constexpr T toggle(T v) noexcept {
    if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) {
      return v;
    } else if constexpr (sizeof(T) == 2) {
      return __builtin_bswap16(v);
    } else if constexpr (sizeof(T) == 4) {
      return __builtin_bswap32(v);
    } else {
      return __builtin_bswap64(v);
    }
  }

  T nbo_ = 0;
};

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

}  // namespace Korva
