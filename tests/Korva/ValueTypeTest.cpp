#include <Korva/ValueType.h>

#include <Korva/EthAddr.h>
#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>
#include <Korva/IpGenPrefix.h>
#include <Korva/Mpls.h>

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "ValueTestUtil.h"

namespace {

using Korva::U32;

// Known values of Thomas Wang's mix, worked out apart from the library.
TEST(ValueHashMix, KnownValues) {
  const std::pair<U32, U32> cases[] = {{0, 0xcaa3caa3u},
                                       {1, 0x12d60bf6u},
                                       {0x7fffffff, 0x7827b96au},
                                       {0x80000000, 0x6551e551u},
                                       {0xffffffff, 0xbd55fc18u}};
  for (const auto& [w, mixed] : cases) EXPECT_EQ(Korva::valueHashMix(w), mixed) << w;
  constexpr U32 atCompileTime = Korva::valueHashMix(0x0a000001u);
  EXPECT_EQ(atCompileTime, 0x51590679u);
}

struct MurmurVector {
  std::string key;
  U32 seed;
  U32 hash;
};

// Published MurmurHash3_x86_32 test vectors: every tail length, seeds, bytes above 0x7f
// (which a signed read would get wrong) and several blocks.
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
      {"\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80\xcf\x80", 0x9747b28cu,
       0xd58063c1u},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 0, 0xee925b90u},
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

// Texts near the valid ones: a seed with up to three characters replaced, inserted or
// removed, so that both readers see many texts of each kind.
std::string nearText(const std::vector<std::string>& seeds, std::mt19937& rng) {
  static constexpr std::string_view alphabet = "0123456789abcdefABCDEF.:-/ x";
  std::string text = seeds[rng() % seeds.size()];
  for (unsigned edits = rng() % 4; edits > 0; --edits) {
    const size_t at = text.empty() ? 0 : rng() % text.size();
    const char c = alphabet[rng() % alphabet.size()];
    switch (rng() % 3) {
      case 0:
        if (!text.empty()) text[at] = c;
        break;
      case 1:
        text.insert(text.begin() + at, c);
        break;
      default:
        if (!text.empty()) text.erase(at, 1);
        break;
    }
  }
  return text;
}

// tryParse accepts exactly what stringValueIs accepts, with the same value.
template <class T>
void expectTryParseAgrees(std::vector<std::string> seeds) {
  std::mt19937 rng(static_cast<U32>(seeds.size() * 7919 + seeds[0].size()));
  int accepted = 0;
  int refused = 0;
  for (int i = 0; i < 8000; ++i) {
    const std::string text = nearText(seeds, rng);
    const std::optional<T> quiet = Korva::tryParse<T>(text);
    T loud{};
    bool raised = false;
    try {
      loud.stringValueIs(text);
    } catch (const Mox::RangeException&) {
      raised = true;
    }
    ASSERT_EQ(quiet.has_value(), !raised) << '"' << text << '"';
    if (quiet) {
      ASSERT_EQ(*quiet, loud) << '"' << text << '"';
      ++accepted;
    } else {
      ++refused;
    }
  }
  EXPECT_GT(accepted, 500);
  EXPECT_GT(refused, 500);
}

TEST(TryParse, AgreesWithTheRaisingParseNearValidTexts) {
  expectTryParseAgrees<Korva::IpAddr>({"10.1.2.3", "0.0.0.0", "255.255.255.255", "001.2.3.40"});
  expectTryParseAgrees<Korva::Ip6Addr>(
      {"::", "2001:db8::1", "::ffff:10.1.2.3", "1:2:3:4:5:6:7:8", "fe80::", "1::2:3"});
  expectTryParseAgrees<Korva::EthAddr>(
      {"00:11:22:33:44:55", "0a-1b-2c-3d-4e-5f", "0011.2233.4455", "0:1:2:3:4:5"});
  expectTryParseAgrees<Korva::Eui64>({"00:11:22:33:44:55:66:77", "0011.2233.4455.6677"});
  expectTryParseAgrees<Korva::Prefix>({"10.0.0.0/8", "0.0.0.0/0", "1.2.3.4/32"});
  expectTryParseAgrees<Korva::IpGenPrefix>({"10.1.1.0/24", "2001:db8::/32", "10.1.1.1"});
  expectTryParseAgrees<Korva::MplsLabel>({"16", "0", "1048575", "3"});
}

}  // namespace
