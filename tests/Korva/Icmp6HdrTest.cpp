#include <Korva/Icmp6Hdr.h>
#include <Korva/Ip6Hdr.h>

#include "HdrTestUtil.h"
#include "KernelPackets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace {

using Korva::U16;
using Korva::U32;

std::string hex(const void* bytes, size_t len) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < len; ++i) {
    std::snprintf(two, sizeof two, "%02x", static_cast<const Korva::U8*>(bytes)[i]);
    out += two;
  }
  return out;
}

TEST(Icmp6Hdr, ChecksumMatchesKernelEchoRequests) {
  std::vector<std::string> messages;
  for (U16 seq = 1; seq <= 3; ++seq) {
    Korva::Icmp6EchoHdr echo;
    echo.icmp6.type.valueIs(Korva::icmp6EchoRequest);
    echo.id.valueIs(0x4b56);
    echo.sequence.valueIs(seq);
    messages.emplace_back(reinterpret_cast<const char*>(&echo), sizeof echo);
    messages.back() += std::string(seq * 7, char(0xF0 + seq));
  }
  std::string skipped = KorvaTest::inPrivateLink([&](KorvaTest::LinkCapture& link) {
    // A raw ICMPv6 socket: the kernel computes the checksum.
    auto packets = link.send(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6, 0, messages);
    ASSERT_EQ(packets.size(), 3u);
    for (const auto& pkt : packets) {
      KorvaTest::expectKernelChecksum(*KorvaTest::transportView(pkt, Korva::icmp6HdrWrapperFactory),
                                      0);
      EXPECT_EQ(Korva::icmp6EchoHdrWrapperFactory(pkt, 40)->header()->id.value(), 0x4b56);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(Icmp6Hdr, FieldsRoundTrip) {
  using RouterAdvert = Korva::Icmp6RouterAdvertHdr;
  using NeighborAdvert = Korva::Icmp6NeighborAdvertHdr;
  using PrefixInfo = Korva::Icmp6PrefixInfoOption;
  KorvaTest::expectFieldsRoundTrip<RouterAdvert>({
      KORVA_HDR_FIELD(RouterAdvert, managed, 5, 1, 7, 1),
      KORVA_HDR_FIELD(RouterAdvert, other, 5, 1, 6, 1),
      KORVA_HDR_FIELD(RouterAdvert, preference, 5, 1, 3, 2),
  });
  KorvaTest::expectFieldsRoundTrip<NeighborAdvert>({
      KORVA_HDR_FIELD(NeighborAdvert, router, 4, 4, 31, 1),
      KORVA_HDR_FIELD(NeighborAdvert, solicited, 4, 4, 30, 1),
      KORVA_HDR_FIELD(NeighborAdvert, override, 4, 4, 29, 1),
  });
  KorvaTest::expectFieldsRoundTrip<PrefixInfo>({
      KORVA_HDR_FIELD(PrefixInfo, onLink, 3, 1, 7, 1),
      KORVA_HDR_FIELD(PrefixInfo, autonomous, 3, 1, 6, 1),
  });
}

// The wire bytes of the messages and options: field order, type and length defaults.
TEST(Icmp6Hdr, Layouts) {
  Korva::Icmp6RouterAdvertHdr ra;
  ra.icmp6.type.valueIs(Korva::icmp6RouterAdvert);
  ra.curHopLimit.valueIs(64);
  ra.flags.valueIs(0x98);
  ra.routerLifetime.valueIs(1800);
  ra.reachableTime.valueIs(30000);
  ra.retransTimer.valueIs(1000);
  EXPECT_EQ(hex(&ra, sizeof ra), "860000004098070800007530000003e8");

  Korva::Icmp6TargetLinkAddrOption tlla;
  tlla.ethAddrIs(Korva::EthAddr(0x0200, 0x5e00, 0x5301));
  EXPECT_EQ(hex(&tlla, sizeof tlla), "020102005e005301");
  EXPECT_EQ(tlla.ethAddr(), Korva::EthAddr(0x0200, 0x5e00, 0x5301));

  Korva::Icmp6PrefixInfoOption prefix;
  prefix.prefixLen.valueIs(64);
  prefix.validLifetime.valueIs(0xFFFFFFFF);
  prefix.prefixAddrIs(Korva::Ip6Addr("2001:db8::"));
  EXPECT_EQ(hex(&prefix, sizeof prefix),
            "03044000ffffffff000000000000000020010db8000000000000000000000000");

  Korva::Icmp6MtuOption mtu;
  mtu.mtu.valueIs(1500);
  EXPECT_EQ(hex(&mtu, sizeof mtu), "05010000000005dc");
}

TEST(Icmp6Hdr, DnsOptionsOverPacketBytes) {
  // RDNSS with servers ::1 and ::2, then DNSSL with "example.com", as a router sends them.
  const std::string lifetime("\x00\x00\x00\x00\x0e\x10", 6);
  std::string options = "\x19\x05" + lifetime + std::string(15, '\0') + "\x01" +
                        std::string(15, '\0') + "\x02\x1f\x03" + lifetime +
                        std::string("\7example\3com\0\0\0\0", 16);
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(options);
  auto rdnss = Korva::icmp6DnsServerOptionWrapperFactory(pkt, 0);
  EXPECT_EQ(rdnss->header()->lifetime.value(), 3600u);
  ASSERT_EQ(rdnss->header()->addressCount(), 2u);
  EXPECT_EQ(rdnss->header()->address(1), Korva::Ip6Addr("::2"));
  U32 next = Korva::icmp6OptionHdrWrapperFactory(pkt, 0)->header()->optionBytes();
  EXPECT_EQ(next, 40u);
  auto dnssl = Korva::icmp6DnsSuffixOptionWrapperFactory(pkt, next);
  EXPECT_EQ(dnssl->header()->suffixBytes(), 16u);
  EXPECT_EQ(std::memcmp(dnssl->header()->suffixes(), "\7example", 8), 0);
}

TEST(Icmp6HdrDeathTest, HeadersMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(30);
  Korva::icmp6NeighborSolicitHdrWrapperFactory(pkt, 6);
  EXPECT_DEATH(Korva::icmp6NeighborSolicitHdrWrapperFactory(pkt, 7),
               "sizeof\\( Icmp6NeighborSolicitHdr \\)");
  EXPECT_DEATH(Korva::icmp6PrefixInfoOptionWrapperFactory(pkt, 0),
               "sizeof\\( Icmp6PrefixInfoOption \\)");
  EXPECT_THROW(Korva::icmp6RouterAdvertHdrWrapperFactory(nullptr, 0), Mox::RangeException);
}

}  // namespace
