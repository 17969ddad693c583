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

TEST(Crc32, TableIsTheByteAtATimeTable) {
  const Korva::Crc32::Table& table = Korva::Crc32::table();
  EXPECT_EQ(table[0], 0u);
  EXPECT_EQ(table[1], 0x77073096u);
  EXPECT_EQ(table[255], 0x2D02EF8Du);
}

TEST(Crc32, MatchesZlibForEveryLengthAndAlignment) {
  std::mt19937 rng(0x04C11DB7);
  std::vector<U8> storage(4096 + 64);
  for (U8& b : storage) b = U8(rng());
  for (U32 len = 0; len <= 4096; ++len) {
    const U8* p = storage.data() + rng() % 64;
    ASSERT_EQ(Korva::Crc32::crc(p, len), U32(crc32(0, p, len))) << "len " << len;
  }
}

TEST(Crc32, ContinuesLikeZlib) {
  std::mt19937 rng(42);
  std::vector<U8> bytes(300000);
  for (U8& b : bytes) b = U8(rng());
  for (int round = 0; round < 50; ++round) {
    U32 split = rng() % bytes.size();
    U32 first = Korva::Crc32::crc(bytes.data(), split);
    U32 whole = Korva::Crc32::crc(bytes.data() + split, U32(bytes.size() - split), first);
    ASSERT_EQ(whole, U32(crc32(0, bytes.data(), bytes.size())));
  }
}

}  // namespace
