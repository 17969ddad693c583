#include <Korva/Icmp6Hdr.h>
#include <Korva/Ip6Hdr.h>

#include "KernelPackets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;

std::string hex(const void* bytes, size_t len) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < len; ++i) {
    std::snprintf(two, sizeof two, "%02x", static_cast<const U8*>(bytes)[i]);
    out += two;
  }
  return out;
}

TEST(Icmp6Hdr, ChecksumMatchesKernelEchoRequests) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    KorvaTest::LinkCapture capture;
    int fd = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);  // the kernel computes the checksum
    ASSERT_GE(fd, 0);
    sockaddr_in6 peer{};
    peer.sin6_family = AF_INET6;
    inet_pton(AF_INET6, KorvaTest::peerIpv6, &peer.sin6_addr);
    for (U16 seq = 1; seq <= 3; ++seq) {
      Korva::Icmp6EchoHdr echo;
      echo.icmp6.type.valueIs(Korva::icmp6EchoRequest);
      echo.id.valueIs(0x4b56);
      echo.sequence.valueIs(seq);
      std::string message(reinterpret_cast<const char*>(&echo), sizeof echo);
      message += std::string(seq * 7, char(0xF0 + seq));
      ASSERT_GT(sendto(fd, message.data(), message.size(), 0,
                       reinterpret_cast<const sockaddr*>(&peer), sizeof peer),
                0);
    }
    close(fd);
    auto packets = capture.packets(3, Korva::ipProtoIcmpv6);
    ASSERT_EQ(packets.size(), 3u);
    for (const auto& pkt : packets) {
      auto ip = Korva::ip6HdrWrapperFactory(pkt, 0);
      auto icmp = Korva::icmp6HdrWrapperFactory(pkt, sizeof(Korva::Ip6Hdr));
      icmp->ipSrcIs(ip->header()->srcAddr());
      icmp->ipDstIs(ip->header()->dstAddr());
      EXPECT_EQ(icmp->computedChecksumU16(), 0);
      Korva::IpChecksum kernel = icmp->header()->checksum;
      icmp->header()->checksum.valueIs(0);
      EXPECT_EQ(icmp->computedChecksum(), kernel);
      EXPECT_EQ(Korva::icmp6EchoHdrWrapperFactory(pkt, 40)->header()->id.value(), 0x4b56);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(Icmp6Hdr, RouterAdvertisementLayout) {
  Korva::Icmp6RouterAdvertHdr ra;
  ra.icmp6.type.valueIs(Korva::icmp6RouterAdvert);
  ra.curHopLimit.valueIs(64);
  ra.managedIs(true);
  ra.preferenceIs(3);  // low
  ra.routerLifetime.valueIs(1800);
  ra.reachableTime.valueIs(30000);
  ra.retransTimer.valueIs(1000);
  EXPECT_EQ(hex(&ra, sizeof ra),
            "8600000040980708000075300000"
            "03e8");
  EXPECT_TRUE(ra.managed());
  EXPECT_FALSE(ra.other());
}

TEST(Icmp6Hdr, NeighbourMessagesAndOptionsLayout) {
  Korva::Icmp6NeighborAdvertHdr na;
  na.routerIs(true);
  na.overrideIs(true);
  na.target[15] = 1;
  EXPECT_EQ(hex(&na, 8), "00000000a0000000");
  EXPECT_FALSE(na.solicited());

  Korva::Icmp6TargetLinkAddrOption tlla;
  tlla.ethAddrIs(Korva::EthAddr(0x0200, 0x5e00, 0x5301));
  EXPECT_EQ(hex(&tlla, sizeof tlla),
            "02010200"
            "5e005301");
  EXPECT_EQ(tlla.ethAddr(), Korva::EthAddr(0x0200, 0x5e00, 0x5301));
  EXPECT_STREQ(Korva::Icmp6SrcLinkAddrOption::typeName, "Icmp6SrcLinkAddrOption");

  Korva::Icmp6PrefixInfoOption prefix;
  prefix.prefixLen.valueIs(64);
  prefix.onLinkIs(true);
  prefix.autonomousIs(true);
  prefix.validLifetime.valueIs(0xFFFFFFFF);
  EXPECT_EQ(hex(&prefix, 8), "030440c0ffffffff");

  Korva::Icmp6MtuOption mtu;
  mtu.mtu.valueIs(1500);
  EXPECT_EQ(hex(&mtu, sizeof mtu), "05010000000005dc");
}

TEST(Icmp6Hdr, DnsOptionsOverPacketBytes) {
  // RDNSS with two servers and DNSSL with "example.com", as a router sends them.
  std::string options = std::string("\x19\x05\x00\x00\x00\x00\x0e\x10", 8) + std::string(15, '\0') +
                        "\x01" + std::string(15, '\0') + "\x02" +
                        std::string("\x1f\x03\x00\x00\x00\x00\x0e\x10", 8) +
                        std::string(
                            "\x07"
                            "example"
                            "\x03"
                            "com"
                            "\x00",
                            13) +
                        std::string(3, '\0');
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(options);
  auto rdnss = Korva::icmp6DnsServerOptionWrapperFactory(pkt, 0);
  EXPECT_EQ(rdnss->header()->lifetime.value(), 3600u);
  ASSERT_EQ(rdnss->header()->addressCount(), 2u);
  EXPECT_EQ(rdnss->header()->address(1), Korva::Ip6Addr("::2"));
  auto generic = Korva::icmp6OptionHdrWrapperFactory(pkt, 0);
  U32 next = generic->header()->optionBytes();
  EXPECT_EQ(next, 40u);
  auto dnssl = Korva::icmp6DnsSuffixOptionWrapperFactory(pkt, next);
  EXPECT_EQ(dnssl->header()->suffixBytes(), 16u);
  EXPECT_EQ(std::memcmp(dnssl->header()->suffixes(),
                        "\x07"
                        "example",
                        8),
            0);
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
