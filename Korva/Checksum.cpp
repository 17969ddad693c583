#include <Korva/Checksum.h>

#include <Mox/Assert.h>

#include <algorithm>
#include <array>
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

// The AVX2 path is compiled for AVX2 function by function (an attribute both GCC and clang
// honour) and chosen at run time, so the library still runs on machines without it.
#define KORVA_AVX2 __attribute__((target("avx2")))

KORVA_AVX2 inline __m256i load256(const U8* at) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

// vpmaddwd adds pairs of words into 32-bit lanes but treats words as signed, so each word
// is biased by -32768 first (flipping its top bit) and the bias is added back at the end.
template <bool withByteTotal>
KORVA_AVX2 inline void addVector(__m256i& words, __m256i& byteTotals, __m256i v) {
  const __m256i topBit = _mm256_set1_epi16(std::int16_t(0x8000));
  words =
      _mm256_add_epi32(words, _mm256_madd_epi16(_mm256_xor_si256(v, topBit), _mm256_set1_epi16(1)));
  if constexpr (withByteTotal)
    byteTotals = _mm256_add_epi64(byteTotals, _mm256_sad_epu8(v, _mm256_setzero_si256()));
}

// Merges the four 32-bit accumulators into the 64-bit lanes and clears them.
KORVA_AVX2 inline void widen(__m256i (&words)[4], __m256i& wideWords) {
  __m256i merged =
      _mm256_add_epi32(_mm256_add_epi32(words[0], words[1]), _mm256_add_epi32(words[2], words[3]));
  wideWords = _mm256_add_epi64(wideWords, _mm256_cvtepi32_epi64(_mm256_castsi256_si128(merged)));
  wideWords =
      _mm256_add_epi64(wideWords, _mm256_cvtepi32_epi64(_mm256_extracti128_si256(merged, 1)));
  words[0] = words[1] = words[2] = words[3] = _mm256_setzero_si256();
}

KORVA_AVX2 inline U64 laneSum(__m256i lanes) {
  __m128i pairs = _mm_add_epi64(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1));
  U64 sum;
  _mm_storel_epi64(reinterpret_cast<__m128i*>(&sum),
                   _mm_add_epi64(pairs, _mm_unpackhi_epi64(pairs, pairs)));
  return sum;
}

// Four accumulators take 128 bytes per step. A lane changes by at most 2^16 per step, so
// after a block of 2^12 steps the four together still fit 31 bits; they are then merged
// and widened to 64 bits. The last partial vector is read as the buffer's last 32 bytes
// with those already added masked to zero.
template <bool withByteTotal>
KORVA_AVX2 WordSums sumWordsAvx2(const U8* bytes, size_t len) {
  if (len < 32) return sumWordsPortable<withByteTotal>(bytes, len);
  const __m256i zero = _mm256_setzero_si256();
  __m256i words[4] = {zero, zero, zero, zero};
  __m256i wideWords = zero;  // four 64-bit lanes
  __m256i byteTotals = zero;
  U64 vectors = 0;

  constexpr size_t maxBlockSteps = size_t(1) << 12;
  for (;;) {
    size_t steps = std::min(len / 128, maxBlockSteps);
    for (size_t i = 0; i < steps; ++i, bytes += 128) {
      for (int k = 0; k < 4; ++k)
        addVector<withByteTotal>(words[k], byteTotals, load256(bytes + 32 * k));
    }
    len -= steps * 128;
    vectors += steps * 4;
    if (len < 128) break;  // the last few vectors still fit the block's accumulators
    widen(words, wideWords);
  }
  for (; len >= 32; len -= 32, bytes += 32, ++vectors) {
    addVector<withByteTotal>(words[0], byteTotals, load256(bytes));
  }
  if (len) {
    // 32 zero bytes, then 32 bytes of ones: a window at `len` keeps the last `len` bytes.
    static constexpr auto window = [] {
      std::array<U8, 64> bytes{};
      for (size_t i = 32; i < bytes.size(); ++i) bytes[i] = 0xFF;
      return bytes;
    }();
    __m256i keepNew = load256(window.data() + len);
    addVector<withByteTotal>(words[0], byteTotals,
                             _mm256_and_si256(load256(bytes + len - 32), keepNew));
    ++vectors;
  }
  widen(words, wideWords);

  constexpr U64 biasPerVector = 16 * 32768;
  WordSums sums;
  sums.littleEndian = laneSum(wideWords) + vectors * biasPerVector;
  if constexpr (withByteTotal) sums.byteTotal = laneSum(byteTotals);
  return sums;
}

#undef KORVA_AVX2

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
