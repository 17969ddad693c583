#include <Korva/Crc32.h>

#include <bit>
#include <cstddef>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace Korva {

namespace {

// Slicing-by-8: table k maps a byte to its CRC contribution k bytes further on, so eight
// input bytes are folded in with eight independent look-ups.
using SlicingTables = std::array<Crc32::Table, 8>;

constexpr SlicingTables makeSlicingTables() {
  SlicingTables tables{};
  tables[0] = Crc32::initCrc32Table();
  for (size_t k = 1; k < tables.size(); ++k) {
    for (size_t i = 0; i < 256; ++i) {
      U32 prev = tables[k - 1][i];
      tables[k][i] = (prev >> 8) ^ tables[0][prev & 0xFF];
    }
  }
  return tables;
}

constexpr SlicingTables slicing = makeSlicingTables();

U32 loadLittleEndian32(const U8* p) {
  U32 v;
  std::memcpy(&v, p, 4);
  if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
  return v;
}

// Works on the register (the CRC before the final complement).
U32 crcSlicing(U32 reg, const U8* p, size_t len) {
  const auto& t = slicing;
  for (; len >= 8; len -= 8, p += 8) {
    U32 lo = loadLittleEndian32(p) ^ reg;
    U32 hi = loadLittleEndian32(p + 4);
    reg = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
          t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
  }
  for (; len; --len, ++p) reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xFF];
  return reg;
}

using CrcKernel = U32 (*)(U32 reg, const U8* p, size_t len);

#if defined(__x86_64__) || defined(__i386__)

// Carry-less multiplication folding (Intel, "Fast CRC Computation for Generic Polynomials
// Using PCLMULQDQ Instruction"): four 128-bit lanes are folded 64 bytes ahead, merged into
// one, reduced to 64 and then 32 bits by Barrett reduction. The constants are x^k mod P for
// the reflected polynomial, bit-reflected, and the Barrett quotient.
__attribute__((target("pclmul,sse4.1"))) __m128i fold(__m128i acc, __m128i next,
                                                      __m128i constants) {
  __m128i low = _mm_clmulepi64_si128(acc, constants, 0x00);
  __m128i high = _mm_clmulepi64_si128(acc, constants, 0x11);
  return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

// A function of its own, not a lambda: a lambda does not inherit its function's target, so
// without -msse2 (32-bit x86) the intrinsic would not compile.
__attribute__((target("pclmul,sse4.1"))) __m128i load(const U8* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

__attribute__((target("pclmul,sse4.1"))) U32 crcFoldBlocks(U32 reg, const U8* p, size_t len) {
  // Needs len >= 64 and a multiple of 16.
  const __m128i foldBy4 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);
  const __m128i foldBy1 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);
  const __m128i foldTo32 = _mm_set_epi64x(0, 0x163cd6124);
  const __m128i barrett = _mm_set_epi64x(0x1f7011641, 0x1db710641);
  const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);

  __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(int(reg)));
  __m128i x2 = load(p + 16), x3 = load(p + 32), x4 = load(p + 48);
  for (p += 64, len -= 64; len >= 64; p += 64, len -= 64) {
    x1 = fold(x1, load(p), foldBy4);
    x2 = fold(x2, load(p + 16), foldBy4);
    x3 = fold(x3, load(p + 32), foldBy4);
    x4 = fold(x4, load(p + 48), foldBy4);
  }
  x1 = fold(x1, x2, foldBy1);
  x1 = fold(x1, x3, foldBy1);
  x1 = fold(x1, x4, foldBy1);
  for (; len >= 16; p += 16, len -= 16) x1 = fold(x1, load(p), foldBy1);

  // 128 -> 64 bits.
  __m128i t = _mm_clmulepi64_si128(x1, foldBy1, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), t);
  t = _mm_srli_si128(x1, 4);
  x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), foldTo32, 0x00), t);
  // Barrett reduction to 32 bits.
  t = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), barrett, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), barrett, 0x00);
  return U32(_mm_extract_epi32(_mm_xor_si128(x1, t), 1));
}

U32 crcClmul(U32 reg, const U8* p, size_t len) {
  if (len < 64) return crcSlicing(reg, p, len);
  size_t folded = len & ~size_t(15);
  return crcSlicing(crcFoldBlocks(reg, p, folded), p + folded, len - folded);
}

CrcKernel chooseKernel() {
  __builtin_cpu_init();
  bool clmul = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return clmul ? crcClmul : crcSlicing;
}

#else

CrcKernel chooseKernel() {
  return crcSlicing;
}

#endif

// Constant-initialised, so that CRCs work from other units' static initialisers too: the
// first call picks the implementation for this CPU.
U32 resolveAndRun(U32 reg, const U8* p, size_t len);
CrcKernel kernel = resolveAndRun;

U32 resolveAndRun(U32 reg, const U8* p, size_t len) {
  kernel = chooseKernel();
  return kernel(reg, p, len);
}

}  // namespace

U32 Crc32::crc(const void* data, U32 len, U32 previous) {
  if (len == 0) return previous;
  return ~kernel(~previous, static_cast<const U8*>(data), len);
}

const Crc32::Table& Crc32::table() {
  return slicing[0];
}

}  // namespace Korva
