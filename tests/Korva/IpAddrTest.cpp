#include <Korva/IpAddr.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <sstream>
#include <vector>

#include "ValueTestUtil.h"

namespace {

using Korva::IpAddr;
using Korva::IpAddrWithFullMask;
using Korva::IpAddrWithMask;
using Korva::Prefix;
using KorvaTest::expectPredicate;
using KorvaTest::failureText;
using KorvaTest::parseFailure;
using Mox::U32;

IpAddr ip(std::string_view text) {
  return IpAddr(text);
}
Prefix prefix(std::string_view text) {
  return Prefix(text);
}

// Leading zeros, which glibc refuses, are decimal; the bytes are kept in network order.
TEST(IpAddrParse, LeadingZerosAreDecimal) {
  const IpAddr a = ip("010.001.2.0000000255");
  unsigned char bytes[4];
  a.copyToBuffer(bytes);
  EXPECT_EQ(std::string(bytes, bytes + 4), "\x0a\x01\x02\xff");
  EXPECT_EQ(a.value(), 0x0a0102ffu);
  EXPECT_EQ(a, IpAddr::fromHostOrder(0x0a0102ff));
}

TEST(IpAddrParse, SequenceStopsAfterFourthOctetOrLeavesTheIteratorAlone) {
  const std::string text = "1.2.3.4/24";
  Mox::TextIter it = text.data();
  IpAddr a;
  Korva::sequenceToValue(it, text.data() + text.size(), &a);
  EXPECT_EQ(a, IpAddr(1, 2, 3, 4));
  EXPECT_EQ(std::string_view(it), "/24");
  const std::string bad = "1.2.x";
  it = bad.data();
  EXPECT_THROW(IpAddr::sequenceToValueNbo(it, bad.data() + bad.size()), Mox::RangeException);
  EXPECT_EQ(it, bad.data());
}

bool hasLeadingZeroOctet(std::string_view text) {
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    const bool octetStart = i == 0 || text[i - 1] == '.';
    if (octetStart && text[i] == '0' && isdigit(static_cast<unsigned char>(text[i + 1]))) {
      return true;
    }
  }
  return false;
}

// Our reader against glibc's: where glibc accepts, we give the same address; where we accept
// and glibc does not, the only reason may be an octet written with leading zeros.
TEST(IpAddrParse, AgreesWithInetPton) {
  std::mt19937 rng(2);
  const std::string alphabet = "0123456789..........x /-";
  std::vector<std::string> inputs = {"0.0.0.0", "255.255.255.255", "1.2.3.256",
                                     "99999999999999999999.1.1.1"};
  for (int i = 0; i < 50000; ++i) {
    std::string text;
    const int size = 1 + rng() % 16;
    for (int c = 0; c < size; ++c) text += alphabet[rng() % alphabet.size()];
    inputs.push_back(text);
  }
  for (int i = 0; i < 20000; ++i) {
    std::string text = IpAddr(rng()).stringValue();
    inputs.push_back(text);
    text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
    inputs.push_back(text);
  }
  size_t accepted = 0;
  for (const std::string& text : inputs) {
    in_addr expected;
    const bool glibcAccepts = inet_pton(AF_INET, text.c_str(), &expected) == 1;
    const bool weAccept = parseFailure<IpAddr>(text) == "no exception";
    if (glibcAccepts) {
      ++accepted;
      ASSERT_TRUE(weAccept) << text;
      ASSERT_EQ(ip(text).valueNbo(), expected.s_addr) << text;
    } else if (weAccept) {
      ASSERT_TRUE(hasLeadingZeroOctet(text)) << text;
      ASSERT_EQ(inet_pton(AF_INET, ip(text).stringValue().c_str(), &expected), 1) << text;
    }
  }
  EXPECT_GT(accepted, 20000u);
}

TEST(PrefixParse, MaskKeepsHostBitsPrefixRefusesThem) {
  for (const char* text : {"10.0.0.1/8", "10.0.0.1/40", "0.0.0.0/0"}) {
    EXPECT_EQ(IpAddrWithMask(text).stringValue(), text);
  }
  EXPECT_EQ(IpAddrWithMask("10.1.2.3/24"), IpAddrWithMask(IpAddr(10, 1, 2, 3), 24));
  EXPECT_EQ(prefix("10.0.0.0/8"), Prefix(IpAddr(10, 0, 0, 0), 8));
  EXPECT_EQ(prefix("10.1.2.3/32").stringValue(), "10.1.2.3/32");
  EXPECT_EQ(prefix("0.0.0.0/0").len(), 0u);
}

TEST(PrefixParse, SequenceChecksBitsButNotTheEnd) {
  const std::string text = "10.0.0.0/8, rest";
  Mox::TextIter it = text.data();
  Prefix p;
  Korva::sequenceToValue(it, text.data() + text.size(), &p);
  EXPECT_EQ(p, Prefix(IpAddr(10, 0, 0, 0), 8));
  EXPECT_EQ(std::string_view(it), ", rest");
  const std::string bad = "10.0.0.1/8, rest";
  it = bad.data();
  EXPECT_EQ(failureText([&] { Korva::sequenceToValue(it, bad.data() + bad.size(), &p); }),
            "Invalid Prefix - non-zero after prefixlen");
}

TEST(IpAddrWithFullMaskParse, GenericFormBothWays) {
  const std::string text =
      "Value('Korva::IpAddrWithFullMask', ** {'address': 10.1.2.3, 'mask': 4294967040})";
  const IpAddrWithFullMask m(IpAddr(10, 1, 2, 3), 0xffffff00);
  EXPECT_EQ(IpAddrWithFullMask(text), m);
  EXPECT_EQ(valueToStrep(m), text);
  std::ostringstream os;
  os << m;
  EXPECT_EQ(os.str(), text);
  std::mt19937 rng(3);
  for (int i = 0; i < 1000; ++i) {
    const IpAddrWithFullMask v(IpAddr(rng()), rng());
    ASSERT_EQ(IpAddrWithFullMask(valueToStrep(v)), v);
  }
}

TEST(IpAddrPrint, AgreesWithInetNtop) {
  std::mt19937 rng(4);
  for (int i = 0; i < 100000; ++i) {
    const IpAddr a(i == 0 ? 0u : i == 1 ? 0xffffffffu : U32(rng()));
    in_addr raw{a.valueNbo()};
    char expected[INET_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET, &raw, expected, sizeof expected), nullptr);
    ASSERT_EQ(a.stringValue(), expected);
  }
  std::ostringstream os;
  os << IpAddr(192, 168, 1, 20) << ' ' << Prefix(IpAddr(10, 0, 0, 0), 8);
  EXPECT_EQ(os.str(), "192.168.1.20 10.0.0.0/8");
}

TEST(IpAddrWithFullMaskPrint, PrefixFormForContiguousMasks) {
  const std::pair<U32, const char*> cases[] = {{0xffffff00, "10.1.2.0/24"},
                                               {0xffffffff, "10.1.2.3/32"},
                                               {0x80000000, "0.0.0.0/1"},
                                               {0, "0.0.0.0/0"},
                                               {0xff00ff00, "10.1.2.3/255.0.255.0"},
                                               {0x000000ff, "10.1.2.3/0.0.0.255"}};
  for (const auto& [mask, text] : cases) {
    EXPECT_EQ(IpAddrWithFullMask(IpAddr(10, 1, 2, 3), mask).stringValue(), text);
  }
}

// The relations all follow from <=>, so it alone is checked.
TEST(IpAddrOrder, AgreesWithHostNumbers) {
  std::mt19937 rng(5);
  for (int i = 0; i < 10000; ++i) {
    const U32 x = rng() % 4 == 0 ? rng() % 8 : rng(), y = rng() % 4 == 0 ? rng() % 8 : rng();
    ASSERT_EQ(IpAddr::fromHostOrder(x) <=> IpAddr::fromHostOrder(y), x <=> y);
  }
}

TEST(PrefixOrder, MoreSpecificFirst) {
  EXPECT_EQ(KorvaTest::sortedTexts<Prefix>({"11.0.0.0/8", "10.0.0.0/8", "10.1.0.0/16", "0.0.0.0/0",
                                            "10.1.2.3/32", "9.0.0.0/8"}),
            (std::vector<std::string>{"9.0.0.0/8", "10.1.2.3/32", "10.1.0.0/16", "10.0.0.0/8",
                                      "11.0.0.0/8", "0.0.0.0/0"}));
  EXPECT_TRUE(prefix("10.0.0.0/8") <=> prefix("10.0.0.0/8") == 0);
}

TEST(IpAddrWithMaskOrder, AddressThenLength) {
  EXPECT_LT(IpAddrWithMask("10.0.0.1/8"), IpAddrWithMask("10.0.0.1/9"));
  EXPECT_LT(IpAddrWithMask("10.0.0.1/30"), IpAddrWithMask("10.0.0.2/8"));
  EXPECT_LT(IpAddrWithFullMask(ip("1.0.0.0"), 5), IpAddrWithFullMask(ip("1.0.0.0"), 6));
  EXPECT_LT(IpAddrWithFullMask(ip("1.0.0.0"), 7), IpAddrWithFullMask(ip("1.0.0.1"), 6));
}

TEST(IpAddrHash, MixOfTheStoredWord) {
  // The stored word read as a host integer: on this little-endian host 1.2.3.4 is 0x04030201.
  // Known values, worked out apart from the library.
  EXPECT_EQ(ip("1.2.3.4").hash(), 0x90af30c6u);
  EXPECT_EQ(IpAddr().hash(), 0xcaa3caa3u);
  EXPECT_EQ(prefix("10.0.0.0/8").hash(), 0xc13c560au);
}

TEST(IpAddrPredicates, Classes) {
  using A = IpAddr;
  expectPredicate<A>(&A::isMulticast, {"224.0.0.1", "239.255.255.255"}, {"240.0.0.0"});
  expectPredicate<A>(&A::isUnicast, {"240.0.0.1"}, {"224.0.0.1", "255.255.255.255"});
  expectPredicate<A>(&A::isReservedMulticast, {"224.0.0.255"}, {"224.0.1.0"});
  expectPredicate<A>(&A::isLoopback, {"127.3.4.5"}, {"128.0.0.1"});
  expectPredicate<A>(&A::isLoopbackBase, {"127.0.0.0"}, {"127.3.4.5"});
  expectPredicate<A>(&A::isReserved, {"240.0.0.1"}, {"255.255.255.255", "239.0.0.1"});
  expectPredicate<A>(&A::isLinkLocalUnicast, {"169.254.1.1"}, {"169.253.1.1"});
  expectPredicate<A>(&A::isPimRouters, {"224.0.0.13"}, {"224.0.0.14"});
  expectPredicate<A>(&A::isThisNetwork, {"0.1.2.3"}, {"1.0.0.0"});
  // Each network doubles as its own mask, so more than the RFC 1918 ranges count.
  expectPredicate<A>(&A::isPrivate,
                     {"10.0.0.1", "172.16.0.1", "192.168.1.1", "11.0.0.1", "14.0.0.1", "175.48.0.1",
                      "255.255.255.255"},
                     {"12.0.0.1", "172.15.0.1", "192.167.0.1", "0.0.0.0", "9.255.0.0"});
  EXPECT_EQ(ip("10.0.0.0").longestCommonPrefix(ip("10.0.0.1")), 31u);
  EXPECT_EQ(ip("10.0.0.1").longestCommonPrefix(ip("10.0.0.1")), 32u);
  EXPECT_EQ(ip("0.0.0.0").longestCommonPrefix(ip("128.0.0.0")), 0u);
  EXPECT_EQ(ip("10.1.0.0").longestCommonPrefix(ip("10.0.0.0")), 15u);
}

TEST(PrefixPredicates, ContainsAndSubnetHost) {
  const Prefix all(IpAddr(), 0);
  EXPECT_TRUE(all.contains(ip("255.255.255.255")));
  const Prefix ten = prefix("10.0.0.0/8");
  EXPECT_TRUE(ten.contains(ip("10.255.0.1")));
  EXPECT_FALSE(ten.contains(ip("11.0.0.0")));
  EXPECT_EQ(ten.subnetHost(ip("0.0.0.5")), ip("10.0.0.5"));
  EXPECT_EQ(failureText([&] { ten.subnetHost(ip("10.0.0.5")); }), "Host address too long");
  EXPECT_EQ(all.subnetHost(ip("10.0.0.5")), ip("10.0.0.5"));
  EXPECT_TRUE(prefix("1.2.3.4/32").isHost());
  EXPECT_FALSE(ten.isHost());
  EXPECT_FALSE(prefix("224.0.0.0/4").isUnicast());
}

TEST(PrefixPredicates, ConstructorCheckKeepsTheNullLength) {
  EXPECT_NO_THROW(Prefix(ip("10.0.0.1"), 32));
  EXPECT_NO_THROW(Prefix(ip("10.0.0.1"), Prefix::nullPrefixLen));
  EXPECT_EQ(failureText([] { Prefix(ip("10.0.0.1"), 8); }),
            "Prefix::validAsPrefix != true not allowed");
  EXPECT_EQ(failureText([] { Prefix(ip("10.0.0.0"), 33); }),
            "Prefix::validAsPrefix != true not allowed");
  // The null length is accepted by the constructor, never by the parser.
  EXPECT_EQ(parseFailure<Prefix>("10.0.0.0/4294967295"),
            "Invalid Prefix - non-zero after prefixlen");
}

TEST(IpAddrFailures, InvalidTexts) {
  const IpAddr before(9, 9, 9, 9);
  for (const char* text :
       {"1.2.3", "1.2.3.", "", " 1.2.3.4", "1.2.3.4 ", "1..2.3", "256.0.0.1", "1.2.3.4.5",
        "-1.2.3.4", "+1.2.3.4", "0x1.2.3.4", "1.2.3.4/24", "1.2.3.999999999999999999999999",
        "a.b.c.d", "0000000256.2.3.4", "1.2.3.0256", "1.2.3.2550"}) {
    EXPECT_EQ(parseFailure(text, before), "Invalid IpAddr") << text;
  }
}

TEST(PrefixFailures, Texts) {
  const Prefix before = prefix("9.0.0.0/8");
  EXPECT_EQ(parseFailure("10.0.0.1/8", before), "Invalid Prefix - non-zero after prefixlen");
  EXPECT_EQ(parseFailure("10.0.0.0/33", before), "Invalid Prefix - non-zero after prefixlen");
  EXPECT_EQ(parseFailure("10.0.0.0/8x", before), "Invalid Prefix - non-zero after prefixlen");
  EXPECT_EQ(parseFailure("10.0.0.0", before), "premature end of Prefix type");
  EXPECT_EQ(parseFailure("10.0.0.0/", before), "premature end of Prefix type");
  EXPECT_EQ(parseFailure("10.0.0.0/x", before), "premature end of Prefix type");
  EXPECT_EQ(parseFailure("10.0.0/8", before), "Invalid IpAddr");
  EXPECT_EQ(parseFailure<IpAddrWithMask>("10.0.0.1"), "premature end of Prefix type");
  EXPECT_EQ(parseFailure<IpAddrWithMask>("10.0.0.1/8/"), "Invalid IpAddrWithMask");
}

TEST(IpAddrWithFullMaskFailures, GenericFormLiterals) {
  const IpAddrWithFullMask before(ip("1.1.1.1"), 7);
  EXPECT_EQ(parseFailure("10.1.2.0/24", before), "Expected Value('");
  EXPECT_EQ(parseFailure("Value('Korva::IpAddrWithFullMask', ** {'address': 10.1.2.3})", before),
            "Expected , ");
  EXPECT_EQ(
      parseFailure("Value('Korva::IpAddrWithFullMask', ** {'address': 10.1.2, 'mask': 1})", before),
      "Invalid IpAddr");
}

}  // namespace
