#include <Korva/IpGenAddr.h>

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "ValueTestUtil.h"

namespace {

using Korva::AddressFamily;
using Korva::Ip6Addr;
using Korva::IpAddr;
using Korva::IpGenAddr;
using KorvaTest::expectPredicate;
using KorvaTest::parseFailure;

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

}  // namespace
