#include <Korva/ValueType.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "ValueTestUtil.h"

namespace {

using Korva::U32;
using KorvaTest::referenceMix;

TEST(ValueHashMix, MatchesWangHashEverywhere) {
  for (U32 w : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    EXPECT_EQ(Korva::valueHashMix(w), referenceMix(w)) << w;
  }
  std::mt19937 random(2024);
  for (int i = 0; i < 100000; ++i) {
    const U32 w = random();
    ASSERT_EQ(Korva::valueHashMix(w), referenceMix(w)) << w;
  }
  constexpr U32 atCompileTime = Korva::valueHashMix(0x0a000001u);
  EXPECT_EQ(atCompileTime, referenceMix(0x0a000001u));
}

struct MurmurVector {
  std::string key;
  U32 seed;
  U32 hash;
};

// The published MurmurHash3_x86_32 test vectors.
TEST(MurmurHash3, PublishedVectors) {
  const MurmurVector vectors[] = {
      {"", 0, 0},
      {"", 1, 0x514e28b7u},
      {"", 0xffffffffu, 0x81f16f39u},
      {std::string(4, '\0'), 0, 0x2362f9deu},
      {"aaaa", 0x9747b28cu, 0x5a97808au},
      {"aaa", 0x9747b28cu, 0x283e0130u},
      {"aa", 0x9747b28cu, 0x5d211726u},
      {"a", 0x9747b28cu, 0x7fa09ea6u},
      {"abcd", 0x9747b28cu, 0xf0478627u},
      {"abc", 0x9747b28cu, 0xc84a62ddu},
      {"ab", 0x9747b28cu, 0x74875592u},
      {"Hello, world!", 0x9747b28cu, 0x24884cbau},
      {"\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80", 0x9747b28cu,
       0xd58063c1u},
      {"abc", 0, 0xb3dd93fau},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 0, 0xee925b90u},
      {"The quick brown fox jumps over the lazy dog", 0x9747b28cu, 0x2fa826cdu},
      {std::string(256, 'a'), 0x9747b28cu, 0x37405bdcu},
  };
  for (const MurmurVector& v : vectors) {
    EXPECT_EQ(Korva::murmurHash3(v.key.data(), v.key.size(), v.seed), v.hash)
        << '"' << v.key << "\" seed " << v.seed;
  }
}

TEST(MurmurHash3, ReadsOnlyItsBytes) {
  // The tail must not read past the length: the same bytes inside a longer buffer hash alike.
  const std::string padded = "abcdefg-tail";
  for (size_t length = 0; length <= 7; ++length) {
    const std::string alone = padded.substr(0, length);
    EXPECT_EQ(Korva::murmurHash3(padded.data(), length), Korva::murmurHash3(alone.data(), length));
  }
}

}  // namespace
