#include <Korva/Crc32.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

namespace {

using Korva::U32;
using Korva::U8;

TEST(Crc32, CheckValue) {
  EXPECT_EQ(Korva::Crc32::crc("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(Korva::Crc32::crc(nullptr, 0), 0u);
}

// Every length, any alignment, and continued from a random split, as zlib's crc32 does.
TEST(Crc32, MatchesZlibForEveryLengthAlignmentAndSplit) {
  std::mt19937 rng(0x04C11DB7);
  std::vector<U8> storage(4096 + 64);
  for (U8& b : storage) b = U8(rng());
  for (U32 len = 0; len <= 4096; ++len) {
    const U8* p = storage.data() + rng() % 64;
    const U32 expected = U32(crc32(0, p, len));
    ASSERT_EQ(Korva::Crc32::crc(p, len), expected) << "len " << len;
    const U32 split = rng() % (len + 1);
    ASSERT_EQ(Korva::Crc32::crc(p + split, len - split, Korva::Crc32::crc(p, split)), expected)
        << "len " << len << " split " << split;
  }
}

}  // namespace
