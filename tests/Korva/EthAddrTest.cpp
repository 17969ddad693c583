#include <Korva/EthAddr.h>
#include <Korva/Ethernet.h>

#include <gtest/gtest.h>
#include <netinet/ether.h>

#include <cstring>
#include <random>
#include <sstream>
#include <unordered_set>

#include "ValueTestUtil.h"

namespace Korva {
namespace {

using KorvaTest::failureText;

EthAddr randomEthAddr(std::mt19937_64& rng) {
  U64 bits = rng();
  unsigned char bytes[6];
  for (int i = 0; i < 6; ++i) bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
  return EthAddr::fromBuffer(bytes);
}

TEST(EthAddrParse, SeparatorsCaseAndDigitCounts) {
  const std::pair<const char*, EthAddr> cases[] = {
      {"00:11:22:33:44:55", EthAddr(0x0011, 0x2233, 0x4455)},
      {"00-11-22-33-44-55", EthAddr(0x0011, 0x2233, 0x4455)},
      {"0011.2233.4455", EthAddr(0x0011, 0x2233, 0x4455)},
      {"11.2233.4455", EthAddr(0x0011, 0x2233, 0x4455)},
      {"AA:bb:Cc:dD:0:1", EthAddr(0xaabb, 0xccdd, 0x0001)},
      // Only the value is limited, not the number of digits.
      {"00000000000000000000ff:1:2:3:4:5", EthAddr(0xff01, 0x0203, 0x0405)},
      {"000000000000000ffff.1.2", EthAddr(0xffff, 0x0001, 0x0002)},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(EthAddr(text), expected) << text;
}

TEST(EthAddrParse, SequenceStopsAfterTheLastFieldOrLeavesAllAlone) {
  const std::string text = "00:11:22:33:44:55 rest";
  Mox::TextIter it = text.data();
  EthAddr addr;
  sequenceToValue(it, text.data() + text.size(), &addr);
  EXPECT_EQ(addr, EthAddr(0x0011, 0x2233, 0x4455));
  EXPECT_EQ(std::string(it), " rest");
  const std::string bad = "00:11:22:33:44";
  it = bad.data();
  EXPECT_THROW(sequenceToValue(it, bad.data() + bad.size(), &addr), Mox::RangeException);
  EXPECT_EQ(it, bad.data());
  EXPECT_EQ(addr, EthAddr(0x0011, 0x2233, 0x4455));
}

TEST(EthAddrParse, AgreesWithGlibcEtherAtonAndNtoa) {
  std::mt19937_64 rng(0x91bc);
  for (int i = 0; i < 100000; ++i) {
    EthAddr addr = randomEthAddr(rng);
    ether_addr glibc{};
    addr.copyToBuffer(glibc.ether_addr_octet);
    char text[32];
    // glibc prints without padding ("0:1a:..."), a form our reader must accept too.
    ASSERT_EQ(EthAddr(ether_ntoa_r(&glibc, text)), addr) << text;
    ether_addr back{};
    ASSERT_NE(ether_aton_r(addr.stringValue().c_str(), &back), nullptr);
    ASSERT_EQ(EthAddr::fromBuffer(back.ether_addr_octet), addr);
    ASSERT_EQ(EthAddr(addr.displayString()), addr);
  }
}

TEST(EthAddrPrint, ColonFormIsPaddedAndDottedForm) {
  EthAddr addr(0x0a1b, 0x2c3d, 0x4e5f);
  EXPECT_EQ(addr.displayString(), "0a1b.2c3d.4e5f");
  std::ostringstream os;
  os << addr;
  EXPECT_EQ(os.str(), "0a:1b:2c:3d:4e:5f");
  EXPECT_EQ(EthAddr(0x0001, 0x0203, 0x0405).stringValue(), "00:01:02:03:04:05");
}

TEST(EthAddrAccess, WordsAndBytesShareWireOrder) {
  EthAddr addr(0x0011, 0x2233, 0x4455);
  EXPECT_EQ(addr.byte(2), 0x22);
  EXPECT_EQ(addr.oui(), 0x001122u);
  EXPECT_EQ(addr.station(), 0x334455u);
  addr.wordIs(2, 0xabcd);
  EXPECT_EQ(addr.byte(4), 0xab);
  addr.byteIs(0, 0xfe);
  EXPECT_EQ(addr.word(0), 0xfe11);
  addr.byteDel(1);
  addr.wordDel(1);
  EXPECT_EQ(addr, EthAddr(0xfe00, 0x0000, 0xabcd));
}

TEST(EthAddrAccess, Eui64InsertsFfFfAndKeepsTheLocalBit) {
  EXPECT_EQ(EthAddr("00:11:22:33:44:55").eui64(), Eui64("00:11:22:ff:ff:33:44:55"));
  EXPECT_EQ(EthAddr("02:11:22:33:44:55").eui64().stringValue(), "02:11:22:ff:ff:33:44:55");
}

TEST(EthAddrAccess, IpMulticastGroupsMapToTheirLow23Bits) {
  EXPECT_EQ(ipMcastMacAddr(IpAddr("239.129.1.2")), EthAddr("01:00:5e:01:01:02"));
  EXPECT_EQ(ipMcastMacAddr(IpAddr("224.255.255.255")), EthAddr("01:00:5e:7f:ff:ff"));
}

TEST(EthAddrPredicates, BroadcastUnicastMulticast) {
  const char *broadcast = "ff:ff:ff:ff:ff:ff", *group = "01:00:5e:00:00:01",
             *ip6Group = "33:33:00:00:00:01", *station = "00:11:22:33:44:55";
  KorvaTest::expectPredicate<EthAddr>(&EthAddr::isBroadcast, {broadcast}, {"ff:ff:ff:ff:ff:fe"});
  KorvaTest::expectPredicate<EthAddr>(&EthAddr::isUnicast, {station}, {broadcast, group});
  KorvaTest::expectPredicate<EthAddr>(&EthAddr::isMulticast, {group, ip6Group}, {broadcast});
  KorvaTest::expectPredicate<EthAddr>(&EthAddr::isIp6Multicast, {ip6Group}, {group});
}

// The relations all follow from <=>, so it alone is checked.
TEST(EthAddrOrder, FollowsTheBytesInWireOrder) {
  std::mt19937_64 rng(11);
  for (int i = 0; i < 10000; ++i) {
    EthAddr a = randomEthAddr(rng), b = randomEthAddr(rng);
    if (i % 4 == 0) b.byteIs(5, a.byte(5)), b.wordIs(0, a.word(0));
    unsigned char ba[6], bb[6];
    a.copyToBuffer(ba);
    b.copyToBuffer(bb);
    ASSERT_EQ(a <=> b, std::memcmp(ba, bb, 6) <=> 0);
  }
}

TEST(EthAddrHash, FoldsTheWordsThenMixes) {
  // Known values, worked out apart from the library.
  EXPECT_EQ(EthAddr("00:11:22:33:44:55").hash(), 0x5f36b40fu);
  EXPECT_EQ(EthAddr("ff:ff:ff:ff:ff:ff").hash(), 0x4d7a068au);
  EXPECT_EQ(EthAddr().hash(), 0xcaa3caa3u);
  EXPECT_EQ(std::hash<EthAddr>()(EthAddr(1, 2, 3)), EthAddr(1, 2, 3).hash());
}

TEST(EthAddrFailures, MalformedTextsAndValueIsKept) {
  for (const char* text :
       {"00:11:22:33:44", "00:11-22:33:44:55", "001122334455", "00:11:22:33:44:100",
        "00:11:22:33:44:55:66", "", ":11:22:33:44:55", "00:11:22:33:44:", "00_11_22_33_44_55",
        " 00:11:22:33:44:55", "00:11:22:33:44:55 ", "0011.2233.44556", "0011.2233", "10000.0.0",
        "00:11:22:33:44:g5", "0011.2233.4455.6677"}) {
    EXPECT_EQ(KorvaTest::parseFailure(text, EthAddr(1, 2, 3)), "Invalid EthAddr") << text;
  }
}

TEST(EthAddrFailures, IndexesOutOfRange) {
  EthAddr addr;
  EXPECT_EQ(failureText([&] { addr.byte(6); }), "EthAddr::byte: index out of range");
  EXPECT_EQ(failureText([&] { addr.byteIs(6, 1); }), "EthAddr::byte: index out of range");
  EXPECT_EQ(failureText([&] { addr.word(3); }), "EthAddr::word: index out of range");
  EXPECT_EQ(failureText([&] { addr.wordDel(3); }), "EthAddr::word: index out of range");
}

TEST(Eui64, ParsesAndPrintsEightBytes) {
  Eui64 id("00:11:22:33:44:55:66:77");
  EXPECT_EQ(Eui64("0011.2233.4455.6677"), id);
  EXPECT_EQ(Eui64("0-11-22-33-44-55-66-77"), id);
  EXPECT_EQ(id.word(3), 0x6677);
  id.wordIs(0, 0xabcd);
  EXPECT_EQ(valueToStrep(id), "ab:cd:22:33:44:55:66:77");
  id.byteDelAll();
  EXPECT_EQ(id, Eui64());
  EXPECT_LT(Eui64("00:00:00:00:00:00:00:ff"), Eui64("00:00:00:00:00:00:01:00"));
  EXPECT_GT(Eui64("01:00:00:00:00:00:00:00"), Eui64("00:ff:ff:ff:ff:ff:ff:ff"));
}

TEST(Eui64, RoundTripsRandomValues) {
  std::mt19937_64 rng(0xe064);
  std::unordered_set<U32> hashes;
  for (int i = 0; i < 100000; ++i) {
    U64 bits = rng();
    unsigned char bytes[8];
    std::memcpy(bytes, &bits, 8);
    Eui64 id = Eui64::fromBuffer(bytes);
    ASSERT_EQ(Eui64(id.stringValue()), id);
    hashes.insert(id.hash());
  }
  // A hash that ignored some bytes would collide far more often than this.
  EXPECT_GT(hashes.size(), 99990u);
}

TEST(Eui64, FailuresKeepTheValue) {
  const Eui64 before("01:02:03:04:05:06:07:08");
  // The shared reader reports its own failures in Ethernet terms; leftovers are Eui64's.
  EXPECT_EQ(KorvaTest::parseFailure("00:11:22:33:44:55", before), "Invalid EthAddr");
  EXPECT_EQ(KorvaTest::parseFailure("00:11:22:33:44:55:66:77:88", before), "Invalid Eui64");
  EXPECT_EQ(KorvaTest::parseFailure("0011.2233.4455.6677 ", before), "Invalid Eui64");
  EXPECT_EQ(failureText([&] { before.byte(8); }), "Eui64::byte: index out of range");
}

TEST(EthTypeLookup, NumbersAndNamesBothWays) {
  const std::pair<const char*, U16> table[] = {
      {"ethTypeUnknown", 0x0000}, {"ethTypeIp", 0x0800},          {"ethTypeArpIp", 0x0806},
      {"ethTypeDot1Q", 0x8100},   {"ethTypeQinQ", 0x9100},        {"ethTypeIp6", 0x86DD},
      {"ethTypePtp", 0x88F7},     {"ethTypeMpls", 0x8847},        {"ethTypeDot1ah", 0x88E7},
      {"ethTypeDot1ad", 0x88A8},  {"ethTypeLoopProtect", 0x88B7}, {"ethTypeCfm", 0x8902},
      {"ethTypeVelora", 0xD28B}};
  for (auto [name, number] : table) {
    EthType byNumber = EthTypeInstance(number);
    EXPECT_EQ(static_cast<U16>(byNumber), number) << name;
    EXPECT_EQ(EthTypeInstance(name), byNumber) << name;
    EXPECT_EQ(valueToStrep(byNumber), name);
  }
  std::ostringstream os;
  os << EthType::ethTypeIp6 << ' ' << static_cast<EthType>(0x1234);
  EXPECT_EQ(os.str(), "ethTypeIp6 0x1234");
  EXPECT_EQ(failureText([] { (void)EthTypeInstance(U16(0x1234)); }), "Invalid EthType <0x1234>");
  EXPECT_EQ(failureText([] { (void)EthTypeInstance("ethTypeIpx"); }),
            "Invalid EthType <ethTypeIpx>");
}

TEST(EthTypeText, SequenceReadsANameOrLeavesAllAlone) {
  const std::string text = "ethTypeMpls, next";
  Mox::TextIter it = text.data();
  EthType value = EthType::ethTypeUnknown;
  sequenceToValue(it, text.data() + text.size(), &value);
  EXPECT_EQ(value, EthType::ethTypeMpls);
  EXPECT_EQ(std::string(it), ", next");
  const std::string bad = "ethTypeIp4";
  it = bad.data();
  EXPECT_THROW(sequenceToValue(it, bad.data() + bad.size(), &value), Mox::RangeException);
  EXPECT_EQ(value, EthType::ethTypeMpls);
  EXPECT_EQ(it, bad.data());
}

}  // namespace
}  // namespace Korva
