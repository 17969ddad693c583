#include <Korva/Checksum.h>

#include <Mox/Assert.h>

#include <algorithm>
#include <cstddef>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace Korva {

namespace {

// Sums of an even-length buffer, exact in 64 bits. The hot loop adds the words read least
// significant byte first, which needs no byte swap on x86; folded, that sum is the
// byte-swapped checksum sum (RFC 1071). The exact wire-order sum, which chained chunks
// need unfolded, follows from it and the plain byte total.
struct WordSums {
  U64 littleEndian = 0;
  U64 byteTotal = 0;  // only when asked for

  // With E and O the totals of the bytes at even and odd offsets: littleEndian is
  // E + 256 O, byteTotal is E + O, and the wire-order sum 256 E + O.
  U64 bigEndian() const noexcept { return 257 * byteTotal - littleEndian; }
};

template <bool withByteTotal>
WordSums sumWordsPortable(const U8* bytes, size_t len) {
  WordSums sums;
  for (size_t i = 0; i < len; i += 2) {
    sums.littleEndian += bytes[i] | U32(bytes[i + 1]) << 8;
    if constexpr (withByteTotal) sums.byteTotal += bytes[i] + bytes[i + 1];
  }
  return sums;
}

using WordSummer = WordSums (*)(const U8* bytes, size_t len);

#if defined(__x86_64__) || defined(__i386__)

__attribute__((target("avx2"))) Mox::S64 signedLaneSum(__m256i lanes) {
  alignas(32) std::int32_t parts[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(parts), lanes);
  Mox::S64 sum = 0;
  for (std::int32_t part : parts) sum += part;
  return sum;
}

__attribute__((target("avx2"))) U64 u64LaneSum(__m256i lanes) {
  alignas(32) U64 parts[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(parts), lanes);
  return parts[0] + parts[1] + parts[2] + parts[3];
}

// 64 bytes per step. vpmaddwd adds pairs of words into 32-bit lanes but treats words as
// signed, so each word is biased by -32768 first (flipping its top bit) and the bias is
// added back per block. A lane gains at most 2^16 in size per step, so blocks of 2^14 steps
// cannot overflow it.
template <bool withByteTotal>
__attribute__((target("avx2"))) WordSums sumWordsAvx2(const U8* bytes, size_t len) {
  const __m256i topBit = _mm256_set1_epi16(std::int16_t(0x8000));
  const __m256i ones = _mm256_set1_epi16(1);
  const __m256i zero = _mm256_setzero_si256();
  constexpr size_t maxBlockSteps = size_t(1) << 14;
  constexpr U64 biasPerStep = 32 * 32768;  // 32 words of 64 bytes
  WordSums sums;
  while (len >= 64) {
    size_t steps = std::min(len / 64, maxBlockSteps);
    __m256i wordsA = zero, wordsB = zero, bytesA = zero, bytesB = zero;
    for (size_t i = 0; i < steps; ++i, bytes += 64) {
      __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
      __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 32));
      wordsA = _mm256_add_epi32(wordsA, _mm256_madd_epi16(_mm256_xor_si256(a, topBit), ones));
      wordsB = _mm256_add_epi32(wordsB, _mm256_madd_epi16(_mm256_xor_si256(b, topBit), ones));
      if constexpr (withByteTotal) {
        bytesA = _mm256_add_epi64(bytesA, _mm256_sad_epu8(a, zero));
        bytesB = _mm256_add_epi64(bytesB, _mm256_sad_epu8(b, zero));
      }
    }
    len -= steps * 64;
    sums.littleEndian += U64(signedLaneSum(wordsA) + signedLaneSum(wordsB)) + steps * biasPerStep;
    if constexpr (withByteTotal) sums.byteTotal += u64LaneSum(bytesA) + u64LaneSum(bytesB);
  }
  WordSums tail = sumWordsPortable<withByteTotal>(bytes, len);
  sums.littleEndian += tail.littleEndian;
  sums.byteTotal += tail.byteTotal;
  return sums;
}

bool haveAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

template <bool withByteTotal>
WordSummer chooseWordSummer() {
  return haveAvx2() ? sumWordsAvx2<withByteTotal> : sumWordsPortable<withByteTotal>;
}

#else

template <bool withByteTotal>
WordSummer chooseWordSummer() {
  return sumWordsPortable<withByteTotal>;
}

#endif

// Constant-initialised so that checksums work from other units' static initialisers too:
// the first call picks the implementation for this CPU.
template <bool withByteTotal>
struct Dispatch {
  static WordSums resolveAndSum(const U8* bytes, size_t len) {
    summer = chooseWordSummer<withByteTotal>();
    return summer(bytes, len);
  }
  static inline WordSummer summer = resolveAndSum;
};

// The checksum arithmetic on a 32-bit-or-wider sum: add the carries back until it fits.
U16 fold(U64 sum) {
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return U16(sum);
}

// The folded wire-order sum of any length: an odd last byte is the high byte of a word.
U16 foldedSum(const U8* bytes, U32 len) {
  U16 swapped = fold(Dispatch<false>::summer(bytes, len & ~1u).littleEndian);
  U64 sum = U16(swapped << 8 | swapped >> 8);
  if (len & 1) sum += U32(bytes[len - 1]) << 8;
  return fold(sum);
}

}  // namespace

U32 ipChecksumChunk(const void* bytes, U32 len, U32 partial) {
  MOX_ASSERT((len % 2) == 0);
  return U32(partial + Dispatch<true>::summer(static_cast<const U8*>(bytes), len).bigEndian());
}

IpChecksum ipChecksumCalc(const void* bytes, U32 len, U32 partial) {
  return IpChecksum(U16(~fold(U64(partial) + foldedSum(static_cast<const U8*>(bytes), len))));
}

U16 ipChksum(const void* bytes, U32 len) {
  // The wire-order result, stored as it is, gives the bytes a memory-order sum would.
  return ipChecksumCalc(bytes, len, 0).nbo();
}

}  // namespace Korva
