#pragma once
// The hash mixes shared by the value types: the 32-bit integer mix that IpAddr::hash is
// made of (also applied by the IPv6, Ethernet and prefix hashes) and 32-bit MurmurHash3.

#include <Korva/Types.h>

#include <cstddef>
#include <cstring>

namespace Korva {

// The value mix, all arithmetic modulo 2^32.
constexpr U32 valueHashMix(U32 w) noexcept {
  w = w * 32767u - 1u;
  w ^= w >> 12;
  w *= 5u;
  w ^= w >> 4;
  w *= 2057u;
  w ^= w >> 16;
  return w;
}

// MurmurHash3, 32-bit variant (x86_32), as published: little-endian blocks.
inline U32 murmurHash3(const void* key, size_t len, U32 seed = 0) noexcept {
  constexpr U32 c1 = 0xcc9e2d51u;
  constexpr U32 c2 = 0x1b873593u;
  auto rotl = [](U32 x, int r) { return (x << r) | (x >> (32 - r)); };
  const auto* data = static_cast<const unsigned char*>(key);
  const size_t blocks = len / 4;
  U32 h = seed;
  for (size_t i = 0; i < blocks; ++i) {
    U32 k = U32(data[4 * i]) | U32(data[4 * i + 1]) << 8 | U32(data[4 * i + 2]) << 16 |
            U32(data[4 * i + 3]) << 24;
    k *= c1;
    k = rotl(k, 15);
    k *= c2;
    h ^= k;
    h = rotl(h, 13);
    h = h * 5 + 0xe6546b64u;
  }
  const unsigned char* tail = data + blocks * 4;
  U32 k = 0;
  switch (len & 3) {
    case 3: k ^= U32(tail[2]) << 16; [[fallthrough]];
    case 2: k ^= U32(tail[1]) << 8; [[fallthrough]];
    case 1:
      k ^= tail[0];
      k *= c1;
      k = rotl(k, 15);
      k *= c2;
      h ^= k;
  }
  h ^= static_cast<U32>(len);
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

}  // namespace Korva
