// CRC-32 over arbitrary bytes at arbitrary offsets and split points, against zlib.
#include "FuzzCheck.h"

#include <Korva/Crc32.h>

#include <zlib.h>

#include <string_view>

using namespace KorvaFuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = data[0] % size;
  for (size_t at = 0; at < 8 && at < size; ++at) {
    const uint8_t* bytes = data + at;
    const Korva::U32 len = Korva::U32(size - at);
    const Korva::U32 ours = Korva::Crc32::crc(bytes, len);
    require(ours == crc32(0, bytes, len), "CRC-32 differs from zlib", input);
    if (split <= len) {
      const Korva::U32 chained = Korva::Crc32::crc(bytes + split, len - split,
                                                   Korva::Crc32::crc(bytes, Korva::U32(split)));
      require(chained == ours, "chained CRC-32 differs", input);
    }
  }
  return 0;
}
