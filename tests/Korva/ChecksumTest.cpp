#include <Korva/Checksum.h>
#include <Korva/Crc32.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U64;
using Korva::U8;

// RFC 1071 written the plain way, byte by byte, as the reference.
U64 referenceSum(const U8* p, size_t len) {
  U64 sum = 0;
  for (size_t i = 0; i + 1 < len; i += 2) sum += p[i] * 256u + p[i + 1];
  if (len % 2) sum += p[len - 1] * 256u;
  return sum;
}

U16 referenceChecksum(const U8* p, size_t len, U64 partial = 0) {
  U64 sum = partial + referenceSum(p, len);
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return U16(~sum);
}

std::vector<U8> randomBytes(std::mt19937& rng, size_t len) {
  std::vector<U8> bytes(len);
  for (U8& b : bytes) b = U8(rng());
  return bytes;
}

TEST(Checksum, NetIntegersKeepWireOrder) {
  Korva::NetU64 w;
  w.valueIs(0x0102030405060708ull);
  EXPECT_EQ(std::memcmp(&w, "\1\2\3\4\5\6\7\10", 8), 0);
  EXPECT_EQ(w.value(), 0x0102030405060708ull);
  EXPECT_EQ(Korva::NetU16(0xABCD).nbo(), U16(0xCDAB));
}

// Every length, any alignment, chained from a random even split; the one-call form too.
TEST(Checksum, MatchesReferenceForEveryLengthAlignmentAndSplit) {
  std::mt19937 rng(1071);
  std::vector<U8> storage = randomBytes(rng, 2048 + 64);
  for (U32 len = 0; len <= 2048; ++len) {
    const U8* p = storage.data() + rng() % 64;
    const U16 expected = referenceChecksum(p, len);
    const U32 split = (rng() % (len + 1)) & ~1u;
    const U32 partial = Korva::ipChecksumChunk(p, split, 0);
    ASSERT_EQ(partial, referenceSum(p, split));  // unfolded, exactly
    ASSERT_EQ(Korva::ipChecksumCalc(p + split, len - split, partial).value(), expected)
        << "len " << len << " split " << split;
    ASSERT_EQ(Korva::ipChecksumCalc(p, len, 0).value(), expected) << "len " << len;
    const U16 stored = Korva::ipChksum(p, len);
    const U8* storedBytes = reinterpret_cast<const U8*>(&stored);
    ASSERT_EQ(storedBytes[0] * 256u + storedBytes[1], expected) << "len " << len;
  }
}

TEST(Checksum, LargeBuffersCrossEveryInternalBlock) {
  std::mt19937 rng(65535);
  std::vector<U8> bytes(5 * 1024 * 1024 + 7);
  for (U8& b : bytes) b = U8(rng() | 0xF0);  // large words stress the lane counters
  for (U32 len : {65536u, 65537u, 4194304u, U32(bytes.size())}) {
    EXPECT_EQ(Korva::ipChecksumCalc(bytes.data(), len, 0).value(),
              referenceChecksum(bytes.data(), len));
  }
}

// Every length, any alignment, and continued from a random split, as zlib's crc32 does.
TEST(Crc32, MatchesZlibForEveryLengthAlignmentAndSplit) {
  std::mt19937 rng(0x04C11DB7);
  std::vector<U8> storage = randomBytes(rng, 4096 + 64);
  EXPECT_EQ(Korva::Crc32::crc(nullptr, 0), 0u);
  for (U32 len = 0; len <= 4096; ++len) {
    const U8* p = storage.data() + rng() % 64;
    const U32 expected = U32(crc32(0, p, len));
    ASSERT_EQ(Korva::Crc32::crc(p, len), expected) << "len " << len;
    const U32 split = rng() % (len + 1);
    ASSERT_EQ(Korva::Crc32::crc(p + split, len - split, Korva::Crc32::crc(p, split)), expected)
        << "len " << len << " split " << split;
  }
}

TEST(ChecksumDeathTest, OddChunkLengthAborts) {
  const U8 bytes[3] = {};
  EXPECT_DEATH(Korva::ipChecksumChunk(bytes, 3, 0),
               "Assertion \"\\(len % 2\\) == 0\" failed in Korva/Checksum.cpp");
}

}  // namespace
