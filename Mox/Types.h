#pragma once
// Integer widths and string types of the runtime and of everything built on it.

#include <bit>
#include <cstdint>
#include <string>
#include <type_traits>

namespace Mox {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

// Text values. The runtime keeps one string type; the three names say what a text is for.
using String = std::string;
using String8 = std::string;
using Name = std::string;

// Text readers advance a plain character pointer over the input.
using TextIter = const char*;

// An unsigned integer from host to network byte order, or back: the same swap both ways
// (none on a big-endian host).
template <class U>
requires std::is_unsigned_v<U>
constexpr U networkOrder(U value) noexcept {
  if constexpr (std::endian::native == std::endian::big || sizeof(U) == 1) {
    return value;
  } else if constexpr (sizeof(U) == 2) {
    return __builtin_bswap16(value);
  } else if constexpr (sizeof(U) == 4) {
    return __builtin_bswap32(value);
  } else {
    static_assert(sizeof(U) == 8);
    return __builtin_bswap64(value);
  }
}

}  // namespace Mox
