#pragma once
// What every hand-written value type shares, in one place. The idiom such a type follows:
//
// - Equality and order: `friend bool operator==` and `friend operator<=>`, both defaulted
//   when member-by-member order is the meaning, else written as one three-way comparison
//   (the prefix orders, host-order addresses). The other four relations come from these.
// - Hash: `U32 hash() const noexcept`, built from the mixes below, and the one-line
//   `std::hash` specialisation through ValueHash<T> after the namespace.
// - Text out: `stringValue()`, `valueToStrep`, `operator<<`; a type printed on hot paths
//   adds `char* toChars(char* out) const noexcept`, which writes at most `maxTextSize`
//   characters and returns their end.
// - Text in: `stringValueIs(text)` and `sequenceToValue(it, end, value*)` raise
//   Mox::RangeException and keep the value; tryParse<T>(text) is the non-throwing form.
// - Constants in lower camel case, as the model compiler writes them (`maxTextSize`).

#include <Korva/Types.h>
#include <Mox/Exception.h>

#include <concepts>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>

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
    case 3:
      k ^= U32(tail[2]) << 16;
      [[fallthrough]];
    case 2:
      k ^= U32(tail[1]) << 8;
      [[fallthrough]];
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

// The std::hash of a value type, through its own hash():
//   template <> struct std::hash<Korva::EthAddr> : Korva::ValueHash<Korva::EthAddr> {};
template <class T>
struct ValueHash {
  size_t operator()(const T& value) const noexcept { return value.hash(); }
};

// The non-throwing parse: the value of the whole `text`, or nothing where stringValueIs
// would raise Mox::RangeException. A type whose reader has a non-throwing core offers it as
// `static std::optional<T> tryParse(std::string_view) noexcept`; the others are read by
// their stringValueIs.
template <class T>
std::optional<T> tryParse(std::string_view text) {
  if constexpr (requires {
                  { T::tryParse(text) } -> std::same_as<std::optional<T>>;
                }) {
    return T::tryParse(text);
  } else {
    try {
      T value;
      value.stringValueIs(text);
      return value;
    } catch (const Mox::RangeException&) {
      return std::nullopt;
    }
  }
}

}  // namespace Korva
