// Family-tagged addresses and prefixes.
#include <Korva/IpGenPrefix.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include "ValueTestUtil.h"

namespace {

using Korva::AddressFamily;
using Korva::Ip6Addr;
using Korva::Ip6Prefix;
using Korva::IpAddr;
using Korva::IpGenAddr;
using Korva::IpGenAddrWithMask;
using Korva::IpGenPrefix;
using Korva::IpGenPrefixBase;
using Korva::Prefix;
using KorvaTest::expectPredicate;
using KorvaTest::failureText;
using KorvaTest::parseFailure;

IpGenPrefix prefix(std::string_view text) {
  return IpGenPrefix(text);
}
IpGenAddr gen(std::string_view text) {
  return IpGenAddr(text);
}

TEST(IpGenAddrParse, FamilyFromText) {
  EXPECT_EQ(gen("1.2.3.4"), IpGenAddr(IpAddr(1, 2, 3, 4)));
  EXPECT_EQ(gen("::ffff:1.2.3.4"), IpGenAddr(Ip6Addr(0, 0, 0, 0, 0, 0xffff, 0x102, 0x304)));
  EXPECT_EQ(gen("::"), IpGenAddr(Ip6Addr()));
  auto hint = [](std::string_view text) {
    return Korva::sequenceToAfHint(text.data(), text.data() + text.size());
  };
  EXPECT_EQ(hint("1.2.3.4"), AddressFamily::ipv4);
  EXPECT_EQ(hint("::1.2.3.4"), AddressFamily::ipv6);
  EXPECT_EQ(hint("abc/1.2"), AddressFamily::ipunknown);
  EXPECT_EQ(hint("1234"), AddressFamily::ipunknown);
}

TEST(IpGenAddrParse, SequenceInsideACompositeText) {
  const std::string text = "10.0.0.1, 2001:db8::1}";
  Mox::TextIter it = text.data();
  const Mox::TextIter end = text.data() + text.size();
  IpGenAddr a, b;
  Korva::sequenceToValue(it, end, &a);
  Mox::needString(it, end, ", ");
  Korva::sequenceToValue(it, end, &b);
  EXPECT_EQ(a, gen("10.0.0.1"));
  EXPECT_EQ(b, gen("2001:db8::1"));
  EXPECT_EQ(std::string_view(it), "}");
}

TEST(AddressFamilyText, EnumeratorNames) {
  for (auto af : {AddressFamily::ipunknown, AddressFamily::ipv4, AddressFamily::ipv6}) {
    EXPECT_EQ(Mox::valueFromText<AddressFamily>(valueToStrep(af), "bad"), af);
  }
  EXPECT_EQ(valueToStrep(AddressFamily::ipunknown), "ipunknown");
  EXPECT_THROW(Mox::valueFromText<AddressFamily>("ipv5", "bad"), Mox::RangeException);
}

TEST(IpGenAddrPrint, TextAndBytesPerFamily) {
  EXPECT_EQ(IpGenAddr().stringValue(), "::");
  EXPECT_EQ(IpGenAddr(AddressFamily::ipv4).stringValue(), "0.0.0.0");
  std::ostringstream os;
  os << gen("1.2.3.4") << ' ' << gen("::1") << ' ' << AddressFamily::ipv6;
  EXPECT_EQ(os.str(), "1.2.3.4 ::1 ipv6");
  const IpGenAddr v4 = gen("10.1.2.3");
  EXPECT_EQ(v4.bytes(), std::string("\x0a\x01\x02\x03", 4));
  EXPECT_EQ(gen("fe80::1").bytes(), std::string("\xfe\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
  EXPECT_EQ(IpGenAddr().size(), 16u);
  // The IPv4 word sits in the first four bytes of the area, the rest zero.
  EXPECT_EQ(v4.privateV6Addr(), Ip6Addr(0x0a01, 0x0203, 0, 0, 0, 0, 0, 0));
}

TEST(IpGenAddrOrder, FamilyFirst) {
  EXPECT_LT(gen("255.255.255.255"), gen("::"));
  EXPECT_LT(IpGenAddr(), gen("0.0.0.0"));
  EXPECT_LT(gen("::1"), gen("::2"));
  EXPECT_NE(IpGenAddr(AddressFamily::ipv4), IpGenAddr(AddressFamily::ipv6));
  std::mt19937 rng(22);
  for (int i = 0; i < 10000; ++i) {
    const IpAddr x(static_cast<Mox::U32>(rng())), y(static_cast<Mox::U32>(rng()));
    ASSERT_EQ(IpGenAddr(x) <=> IpGenAddr(y), x <=> y);
  }
}

TEST(IpGenAddrOrder, SortKeyPutsIpv4AfterMostIpv6) {
  EXPECT_EQ(gen("10.1.2.3").sortKey(), 0xffffffff0a010203u);
  EXPECT_EQ(gen("2001:db8:1:2::").sortKey(), 0x20010db800010002u);
  EXPECT_EQ(IpGenAddr().sortKey(), 0u);
  EXPECT_GT(gen("0.0.0.0").sortKey(), gen("ffff:fffe::").sortKey());
  EXPECT_LT(gen("0.0.0.0").sortKey(), gen("ffff:ffff:1::").sortKey());
}

TEST(IpGenAddrHash, FamilyHashes) {
  EXPECT_EQ(gen("1.2.3.4").hash(), IpAddr(1, 2, 3, 4).hash());
  EXPECT_EQ(gen("2001:db8::1").hash(), Ip6Addr("2001:db8::1").hash());
  EXPECT_EQ(IpGenAddr().hash(), 0u);
}

TEST(IpGenAddrPredicates, DelegateToTheFamily) {
  using A = IpGenAddr;
  expectPredicate<A>(&A::isMulticast, {"224.0.0.1", "ff02::1"});
  expectPredicate<A>(&A::isUnicast, {}, {"255.255.255.255"});
  expectPredicate<A>(&A::isLoopback, {"127.0.0.1", "::1"});
  expectPredicate<A>(&A::isLoopbackBase, {"127.0.0.0"}, {"::"});
  expectPredicate<A>(&A::isLinkLocal, {"169.254.0.1", "ff02::1"});
  expectPredicate<A>(&A::isLinkLocalUnicast, {"169.254.0.1"}, {"ff02::1"});
  expectPredicate<A>(&A::isUnspecified, {"0.0.0.0", "::"}, {"0.0.0.1"});
  expectPredicate<A>(&A::isPimRouters, {"224.0.0.13", "ff02::d"});
  expectPredicate<A>(&A::isReserved, {"240.0.0.1"}, {"f000::1"});
  // No family answers as the IPv6 zero address.
  EXPECT_TRUE(IpGenAddr().isUnspecified());
  EXPECT_TRUE(IpGenAddr().isUnicast());
  EXPECT_TRUE(IpGenAddr().isAddrZero());
  EXPECT_EQ(gen("10.0.0.0").longestCommonPrefix(gen("10.0.0.1")), 31u);
  EXPECT_EQ(gen("1::").longestCommonPrefix(gen("1::1")), 127u);
}

TEST(IpGenAddrPredicates, SettingAViewSetsTheFamily) {
  IpGenAddr a(AddressFamily::ipv6);
  a.v4AddrIs(IpAddr(1, 2, 3, 4));
  EXPECT_EQ(a, gen("1.2.3.4"));
  a.v6AddrIs(Ip6Addr("1::"));
  EXPECT_EQ(a.af(), AddressFamily::ipv6);
  a.v4AddrIs(IpAddr());
  EXPECT_TRUE(a.isAddrZero());
}

TEST(IpGenAddrFailures, Texts) {
  const IpGenAddr before = gen("9.9.9.9");
  const std::pair<const char*, const char*> cases[] = {
      {"", "Invalid IpGenAddr"},
      {"1234", "Invalid IpGenAddr"},
      {"/1.2.3.4", "Invalid IpGenAddr"},
      {"1.2.3", "Invalid IpAddr"},
      {"1.2.3.4 ", "Invalid IpAddr"},
      {"1::2::3", "Ip6Addr: only one '::' allowed"},
      {"::1 ", "Ip6Addr: unexpected trailing characters"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(parseFailure(text, before), message) << text;
}

TEST(IpGenPrefixParse, FamilyFromTextAndSlashOptional) {
  EXPECT_EQ(prefix("10.1.1.1"), IpGenPrefix(IpAddr(10, 1, 1, 1), 32));
  EXPECT_EQ(prefix("10.1.1.0/24"), IpGenPrefix(IpAddr(10, 1, 1, 0), 24));
  EXPECT_EQ(prefix("2001:db8::"), IpGenPrefix(Ip6Addr("2001:db8::"), 128));
  EXPECT_EQ(prefix("2001:db8::/32"), IpGenPrefix(Ip6Addr("2001:db8::"), 32));
  EXPECT_EQ(prefix("::ffff:1.2.3.0/120").af(), AddressFamily::ipv6);
  // Read as an Ip6Prefix is, host bits unchecked; only the constructors check them.
  EXPECT_FALSE(prefix("2001:db8::1/64").validAsPrefix());
  EXPECT_EQ(IpGenAddrWithMask("10.1.1.1/40").len(), 40u);
  // The IPv4 length is not optional here, unlike in IpGenPrefix; in IPv6 it is.
  EXPECT_EQ(failureText([] { IpGenAddrWithMask("10.1.1.1"); }), "premature end of Prefix type");
  EXPECT_EQ(IpGenAddrWithMask("2001:db8::1").len(), 128u);
  std::ostringstream os;
  os << prefix("10.0.0.0/8") << ' ' << IpGenAddrWithMask("2001:db8::1/64");
  EXPECT_EQ(os.str(), "10.0.0.0/8 2001:db8::1/64");
}

TEST(IpGenPrefixParse, RandomRoundTrip) {
  std::mt19937 rng(31);
  for (int i = 0; i < 20000; ++i) {
    const IpAddr v4(static_cast<Mox::U32>(rng()));
    const Mox::U32 len4 = rng() % 33;
    const IpGenPrefix p4(IpAddr::fromHostOrder(v4.value() & Korva::detail::leadingBitsMask(len4)),
                         len4);
    ASSERT_EQ(prefix(p4.stringValue()), p4) << p4;
    Ip6Addr v6;
    for (unsigned g = 0; g < 8; ++g) v6.u16Is(g, rng() % 3 ? rng() : 0);
    const Mox::U32 len6 = rng() % 129;
    const IpGenPrefix p6(v6.ip6AddrMaskedByLength(len6), len6);
    ASSERT_EQ(prefix(p6.stringValue()), p6) << p6;
    const IpGenAddrWithMask m6(v6, len6);
    ASSERT_EQ(IpGenAddrWithMask(m6.stringValue()), m6) << m6;
  }
}

TEST(IpGenPrefixBaseParse, GenericForm) {
  const IpGenPrefixBase v4(gen("10.0.0.0"), 8);
  EXPECT_EQ(valueToStrep(v4),
            "Value('Korva::IpGenPrefixBase', ** {'af': ipv4, 'address': 10.0.0.0, 'len': 8})");
  EXPECT_EQ(v4.stringValue(), "10.0.0.0/8");
  const IpGenPrefixBase v6(gen("2001:db8::1"), 200);
  EXPECT_EQ(valueToStrep(v6),
            "Value('Korva::IpGenPrefixBase', ** {'af': ipv6, 'address': 2001:db8::1, 'len': 200})");
  for (const IpGenPrefixBase& value : {v4, v6, IpGenPrefixBase()}) {
    EXPECT_EQ(IpGenPrefixBase(valueToStrep(value)), value);
  }
  EXPECT_EQ(parseFailure<IpGenPrefixBase>(
                "Value('Korva::IpGenPrefixBase', ** {'af': ipv6, 'address': 10.0.0.0, 'len': 8})"),
            "Invalid IpGenPrefixBase");
}

TEST(IpGenPrefixOrder, FamilyThenMoreSpecificFirst) {
  EXPECT_EQ(
      KorvaTest::sortedTexts<IpGenPrefix>({"2001:db8::/32", "10.0.0.0/8", "::/0", "10.1.0.0/16",
                                           "11.0.0.0/8", "2001:db8:1::/48", "0.0.0.0/0"}),
      (std::vector<std::string>{"10.1.0.0/16", "10.0.0.0/8", "11.0.0.0/8", "0.0.0.0/0",
                                "2001:db8:1::/48", "2001:db8::/32", "::/0"}));
  EXPECT_FALSE(prefix("::/0") < prefix("::/0"));
  const IpGenPrefixBase a(gen("10.0.0.0"), 8), b(gen("10.0.0.0"), 16), c(gen("::"), 0);
  EXPECT_LT(IpGenPrefixBase(), a);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
}

TEST(IpGenPrefixOrder, UnknownFamilyAborts) {
  EXPECT_DEATH(static_cast<void>(IpGenPrefix() < prefix("10.0.0.0/8")),
               "Assertion \"af_ == ipv4_ \\|\\| af_ == ipv6_\" failed");
  EXPECT_DEATH(static_cast<void>(IpGenAddrWithMask() < IpGenAddrWithMask("10.0.0.1/8")),
               "Assertion \"af_ == ipv4_ \\|\\| af_ == ipv6_\" failed");
  // An unknown family on the right is only ordered first.
  EXPECT_FALSE(prefix("10.0.0.0/8") < IpGenPrefix());
}

TEST(IpGenAddrWithMaskOrder, AddressThenLength) {
  EXPECT_LT(IpGenAddrWithMask("10.0.0.1/8"), IpGenAddrWithMask("10.0.0.1/9"));
  EXPECT_LT(IpGenAddrWithMask("10.0.0.1/30"), IpGenAddrWithMask("10.0.0.2/8"));
  EXPECT_LT(IpGenAddrWithMask("255.0.0.1/30"), IpGenAddrWithMask("::/8"));
  EXPECT_LT(IpGenAddrWithMask("1::1/64"), IpGenAddrWithMask("1::/48"));
}

// Known values of the mix of the address hash and the length, worked out apart from the library.
TEST(IpGenPrefixHash, MixOfAddressAndLengthAndSortKey) {
  EXPECT_EQ(prefix("10.0.0.0/8").hash(), 0xc13c560au);
  EXPECT_EQ(prefix("2001:db8::/32").hash(), 0xc0a55565u);
  EXPECT_EQ(prefix("2001:db8::/127").hash(), 0xac7ba043u);  // the length is XORed, not added
  EXPECT_EQ(IpGenPrefixBase().hash(), 0u);
  EXPECT_EQ(IpGenAddrWithMask("10.0.0.1/8").hash(), 0x80b8349au);
  EXPECT_EQ(prefix("10.0.0.0/8").sortKey(), 0xffffffff0a000000u);
  EXPECT_EQ(prefix("2001:db8:1:2::/64").sortKey(), 0x20010db800010002u);
  EXPECT_EQ(IpGenPrefixBase().sortKey(), 0u);
}

TEST(IpGenPrefixPredicates, ContainsAndOverlapsWithinTheFamily) {
  const IpGenPrefix ten = prefix("10.0.0.0/8");
  EXPECT_TRUE(ten.contains(gen("10.2.3.4")));
  EXPECT_FALSE(ten.contains(gen("11.0.0.0")));
  EXPECT_FALSE(ten.contains(gen("::a00:1")));
  EXPECT_FALSE(prefix("::/0").contains(gen("1.2.3.4")));
  EXPECT_TRUE(prefix("::/0").contains(gen("1::")));
  EXPECT_TRUE(prefix("10.1.0.0/16").overlaps(ten));
  EXPECT_FALSE(ten.overlaps(prefix("11.0.0.0/8")));
  EXPECT_FALSE(prefix("::/0").overlaps(prefix("0.0.0.0/0")));
  EXPECT_TRUE(prefix("2001:db8::/32").overlaps(prefix("2001:db8:5::/48")));
  EXPECT_TRUE(IpGenAddrWithMask("10.1.1.1/8").contains(gen("10.200.0.0")));
  EXPECT_FALSE(IpGenAddrWithMask("10.1.1.1/8").contains(gen("::")));
  EXPECT_TRUE(IpGenAddrWithMask("2001:db8::1/32").contains(gen("2001:db8:ffff::")));
}

TEST(IpGenPrefixPredicates, Validity) {
  using P = IpGenPrefix;
  EXPECT_TRUE(IpGenPrefix(Prefix(IpAddr(1, 2, 3, 4), Prefix::nullPrefixLen)).validAsPrefix());
  EXPECT_TRUE(IpGenPrefix(Ip6Prefix::nullPrefix()).validAsPrefix());
  EXPECT_FALSE(IpGenPrefix().validAsPrefix());
  expectPredicate<P>(&P::isDefaultRoutePrefix, {"0.0.0.0/0", "::/0"}, {"10.0.0.0/8"});
  expectPredicate<P>(&P::isHost, {"1.2.3.4", "::1"}, {"::/64"});
  expectPredicate<P>(&P::isMulticast, {"224.0.0.0/4"});
  expectPredicate<P>(&P::isLoopback, {"127.0.0.0/8"});
  expectPredicate<P>(&P::isLinkLocal, {"fe80::/64"});
  expectPredicate<P>(&P::isUnspecified, {"::/0"});
  expectPredicate<P>(&P::isReserved, {"240.0.0.0/4"});
}

TEST(IpGenPrefixPredicates, ConstructorsAndConversions) {
  EXPECT_EQ(IpGenPrefix(gen("10.1.1.1")), prefix("10.1.1.1/32"));
  EXPECT_EQ(IpGenPrefix(gen("1::")).len(), 128u);
  EXPECT_EQ(IpGenPrefix(gen("10.0.0.0"), 8), prefix("10.0.0.0/8"));
  EXPECT_EQ(static_cast<Prefix>(prefix("10.0.0.0/8")), Prefix("10.0.0.0/8"));
  EXPECT_EQ(static_cast<Ip6Prefix>(prefix("1::/16")), Ip6Prefix("1::/16"));
  EXPECT_EQ(prefix("1::/16").v6Prefix(), Ip6Prefix("1::/16"));
  const IpGenAddrWithMask m("10.1.2.3/16");
  EXPECT_EQ(m.subnet(), prefix("10.1.0.0/16"));
  EXPECT_EQ(m.v4AddrWithMask(), Korva::IpAddrWithMask("10.1.2.3/16"));
  const IpGenAddrWithMask m6("2001:db8::1/32");
  EXPECT_EQ(m6.subnet(), prefix("2001:db8::/32"));
  EXPECT_EQ(m6.v6AddrWithMask(), Korva::Ip6AddrWithMask("2001:db8::1/32"));
  EXPECT_EQ(failureText([] { IpGenAddrWithMask("10.1.1.1/40").subnet(); }),
            "Prefix::validAsPrefix != true not allowed");
}

TEST(IpGenPrefixSetOps, InsertOverwriteDelete) {
  Korva::IpGenPrefixSet set;
  EXPECT_TRUE(set.prefixIs(prefix("10.0.0.0/8"), true));
  EXPECT_FALSE(set.prefixIs(prefix("10.0.0.0/8"), true));
  EXPECT_TRUE(set.prefixIs(prefix("10.0.0.0/8"), false));
  EXPECT_TRUE(set.prefixIs(prefix("2001:db8::/32"), true));
  EXPECT_EQ(set.prefix(prefix("10.0.0.0/8")), false);
  EXPECT_EQ(set.prefix(prefix("10.0.0.0/16")), std::nullopt);
  EXPECT_EQ(set.prefixCount(), 2u);
  EXPECT_TRUE(set.prefixDel(prefix("10.0.0.0/8")));
  EXPECT_FALSE(set.prefixDel(prefix("10.0.0.0/8")));
  set.prefixDelAll();
  EXPECT_EQ(set, Korva::IpGenPrefixSet());
}

struct Recorder : Korva::IpGenPrefixColl::Notifiee {
  void onPrefixSet(const IpGenPrefix& key) override {
    keys.push_back(key.stringValue() + "=" +
                   (notifier()->prefixSet(key) ? (*notifier()->prefixSet(key) ? "T" : "F") : "-"));
  }
  std::vector<std::string> keys;
};

TEST(IpGenPrefixCollNotify, PerKeyAndOnlyOnChange) {
  auto coll = Mox::make<Korva::IpGenPrefixColl>("routes");
  Recorder recorder;
  recorder.notifierIs(coll.get());
  coll->prefixSetIs(prefix("10.0.0.0/8"), true);
  coll->prefixSetIs(prefix("10.0.0.0/8"), true);
  coll->prefixSetIs(prefix("10.0.0.0/8"), false);
  coll->prefixSetIs(prefix("1::/16"), true);
  coll->prefixSetDel(prefix("2::/16"));
  coll->prefixSetDel(prefix("1::/16"));
  EXPECT_EQ(recorder.keys,
            (std::vector<std::string>{"10.0.0.0/8=T", "10.0.0.0/8=F", "1::/16=T", "1::/16=-"}));
  coll->prefixSetIs(prefix("1::/16"), true);
  recorder.keys.clear();
  coll->prefixSetDelAll();
  std::sort(recorder.keys.begin(), recorder.keys.end());
  EXPECT_EQ(recorder.keys, (std::vector<std::string>{"10.0.0.0/8=-", "1::/16=-"}));
  EXPECT_EQ(coll->prefixSetCount(), 0u);
  recorder.notifierIs(nullptr);
  coll->prefixSetIs(prefix("10.0.0.0/8"), true);
  EXPECT_EQ(recorder.keys.size(), 2u);
}

// Every prefix-like reader over random and mangled texts: a failure leaves the value alone,
// and whatever is accepted prints as a text that reads back to the same value.
template <class T>
void checkReaderOn(const std::string& text) {
  const std::string failure = parseFailure<T>(text);
  ASSERT_FALSE(failure.starts_with("value changed")) << text << ": " << failure;
  if (failure != "no exception") return;
  const T value(text);
  ASSERT_EQ(T(value.stringValue()), value) << text;
}

TEST(IpGenPrefixFailures, AnyTextFailsCleanlyOrRoundTrips) {
  std::mt19937 rng(32);
  const std::string alphabet = "0123456789abcdefABCDEF:::...///  x";
  const char* seeds[] = {"10.1.0.0/16", "2001:db8::/32", "::ffff:1.2.3.4/120",
                         "0.0.0.0/0",   "fe80::1",       "1.2.3.4"};
  for (int i = 0; i < 10000; ++i) {
    std::string text;
    if (i % 2) {
      const int size = rng() % 24;
      for (int c = 0; c < size; ++c) text += alphabet[rng() % alphabet.size()];
    } else {
      text = seeds[rng() % std::size(seeds)];
      for (int edits = 1 + rng() % 3; edits > 0; --edits) {
        text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
      }
    }
    checkReaderOn<Prefix>(text);
    checkReaderOn<Korva::IpAddrWithMask>(text);
    checkReaderOn<Korva::Ip6AddrWithMask>(text);
    checkReaderOn<Ip6Prefix>(text);
    checkReaderOn<IpGenAddr>(text);
    checkReaderOn<IpGenPrefix>(text);
    checkReaderOn<IpGenAddrWithMask>(text);
  }
}

TEST(IpGenPrefixFailures, ReaderTexts) {
  const IpGenPrefix before = prefix("9.0.0.0/8");
  const std::pair<const char*, const char*> cases[] = {
      {"10.1.1.1/24", "Prefix::validAsPrefix != true not allowed"},
      {"10.1.1.0/33", "Prefix::validAsPrefix != true not allowed"},
      {"/10.1.1.0", "Invalid prefix"},
      {"", "Invalid prefix"},
      {"10.1.1.0/24 ", "Invalid prefix"},
      {"10.1.1.0/", "premature end of Prefix type"},
      {"10.1.1.0 /24", "premature end of Prefix type"},
      {"1.2.3/8", "Invalid IpAddr"},
      {"2001:db8::/129", "Ip6AddrWithMask: prefix too long"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(parseFailure(text, before), message) << text;
  EXPECT_EQ(parseFailure<IpGenAddrWithMask>("/8"), "Invalid prefix");
  EXPECT_EQ(parseFailure<IpGenAddrWithMask>("10.1.1.1/"), "premature end of Prefix type");
}

TEST(IpGenPrefixFailures, ConstructorTexts) {
  const std::pair<void (*)(), const char*> cases[] = {
      {[] { IpGenPrefix(IpAddr(10, 1, 1, 1), 33); }, "Invalid IPv4 Prefix Length"},
      {[] { IpGenPrefix(gen("10.0.0.0"), 33); }, "Invalid IPv4 Prefix Length"},
      {[] { IpGenAddrWithMask(IpAddr(), 33); }, "Invalid IPv4 Prefix Length"},
      {[] { IpGenPrefix(Ip6Addr("2001:db8::"), 129); }, "Invalid IPv6 Prefix Length"},
      {[] { IpGenPrefix(gen("2001:db8::"), 129); }, "Invalid IPv6 Prefix Length"},
      {[] { IpGenAddrWithMask(Ip6Addr(), 129); }, "Invalid IPv6 Prefix Length"},
      {[] { IpGenPrefix(IpAddr(10, 1, 1, 1), 24); },
       "Invalid prefix - Non-zero after prefix length"},
      {[] { IpGenPrefix(Ip6Addr("2001:db8::1"), 64); },
       "Invalid prefix - Non-zero after prefix length"},
  };
  for (const auto& [construct, message] : cases) EXPECT_EQ(failureText(construct), message);
  EXPECT_NO_THROW(IpGenAddrWithMask(gen("10.1.1.1"), 24));
}

}  // namespace
