#pragma once
// CRC-32 as Ethernet, zlib and PNG use it: reflected polynomial 0x04C11DB7, initial value
// all ones, final complement. Crc32::crc("123456789") is 0xCBF43926.

#include <Korva/Types.h>

#include <array>

namespace Korva {

class Crc32 {
 public:
  using Table = std::array<U32, 256>;

  // The CRC of `len` bytes. `previous` continues the CRC of earlier bytes (0 to start), so
  // crc(b, n, crc(a, m)) is the CRC of a followed by b, as with zlib's crc32(). A zero
  // length returns `previous` without reading anything.
  static U32 crc(const void* data, U32 len, U32 previous = 0);

  // The byte-at-a-time table: entry i is the CRC register after shifting in byte i.
  static constexpr Table initCrc32Table() {
    Table table{};
    for (U32 i = 0; i < 256; ++i) {
      U32 reg = i;
      for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (reflectedPolynomial & -(reg & 1));
      table[i] = reg;
    }
    return table;
  }
  static const Table& table();

 private:
  static constexpr U32 reflectedPolynomial = 0xEDB88320;
};

}  // namespace Korva
