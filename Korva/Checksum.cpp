#include <Korva/Checksum.h>

#include <Mox/Assert.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace Korva {

namespace {

// The sum of the big-endian 16-bit words of an even-length buffer, exactly (64 bits never
// overflow for a buffer that fits in memory).
using WordSummer = U64 (*)(const U8* bytes, size_t len);

U64 sumWordsPortable(const U8* bytes, size_t len) {
  U64 sum = 0;
  for (size_t i = 0; i < len; i += 2) sum += (U32(bytes[i]) << 8) | bytes[i + 1];
  return sum;
}

#if defined(__x86_64__) || defined(__i386__)

// 32 bytes per step: swap each word to host order, then add the low and high words of
// every 32-bit lane into two accumulators. Each lane gains at most 0xFFFF per step, so a
// block of 65536 steps cannot overflow it; blocks are widened to 64 bits.
__attribute__((target("avx2"))) U64 horizontalSum(__m256i lanes) {
  alignas(32) U32 parts[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(parts), lanes);
  U64 sum = 0;
  for (U32 part : parts) sum += part;
  return sum;
}

__attribute__((target("avx2"))) U64 sumWordsAvx2(const U8* bytes, size_t len) {
  const __m256i swapBytes =
      _mm256_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14,  //
                       1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14);
  const __m256i lowWords = _mm256_set1_epi32(0xFFFF);
  constexpr size_t maxBlockSteps = 65536;
  U64 sum = 0;
  while (len >= 64) {
    size_t steps = std::min(len / 64, maxBlockSteps / 2);
    __m256i lowA = _mm256_setzero_si256(), highA = lowA, lowB = lowA, highB = lowA;
    for (size_t i = 0; i < steps; ++i, bytes += 64) {
      __m256i a = _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes)),
                                      swapBytes);
      __m256i b = _mm256_shuffle_epi8(
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 32)), swapBytes);
      lowA = _mm256_add_epi32(lowA, _mm256_and_si256(a, lowWords));
      highA = _mm256_add_epi32(highA, _mm256_srli_epi32(a, 16));
      lowB = _mm256_add_epi32(lowB, _mm256_and_si256(b, lowWords));
      highB = _mm256_add_epi32(highB, _mm256_srli_epi32(b, 16));
    }
    len -= steps * 64;
    sum += horizontalSum(lowA) + horizontalSum(highA) + horizontalSum(lowB) + horizontalSum(highB);
  }
  return sum + sumWordsPortable(bytes, len);
}

WordSummer chooseWordSummer() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? sumWordsAvx2 : sumWordsPortable;
}

#else

WordSummer chooseWordSummer() {
  return sumWordsPortable;
}

#endif

// Constant-initialised so that checksums work from other units' static initialisers too:
// the first call picks the implementation for this CPU.
U64 resolveAndSumWords(const U8* bytes, size_t len);
WordSummer sumWords = resolveAndSumWords;

U64 resolveAndSumWords(const U8* bytes, size_t len) {
  sumWords = chooseWordSummer();
  return sumWords(bytes, len);
}

// The big-endian word sum of any length: an odd last byte is the high byte of a word.
U64 sumAnyLength(const U8* bytes, U32 len) {
  U64 sum = sumWords(bytes, len & ~1u);
  if (len & 1) sum += U32(bytes[len - 1]) << 8;
  return sum;
}

U16 foldComplement(U64 sum) {
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return U16(~sum);
}

}  // namespace

U32 ipChecksumChunk(const void* bytes, U32 len, U32 partial) {
  MOX_ASSERT((len % 2) == 0);
  return U32(partial + sumWords(static_cast<const U8*>(bytes), len));
}

IpChecksum ipChecksumCalc(const void* bytes, U32 len, U32 partial) {
  return IpChecksum(foldComplement(partial + sumAnyLength(static_cast<const U8*>(bytes), len)));
}

U16 ipChksum(const void* bytes, U32 len) {
  // Summing memory-order words gives the byte-swapped sum of wire-order words (RFC 1071),
  // so the wire-order result stored as it is yields the same bytes.
  return IpChecksum(foldComplement(sumAnyLength(static_cast<const U8*>(bytes), len))).nbo();
}

}  // namespace Korva
