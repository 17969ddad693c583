#include <Korva/IcmpHdr.h>
#include <Korva/IpHdr.h>

#include "KernelPackets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

namespace {

using Korva::U16;
using Korva::U8;

TEST(IcmpHdr, ChecksumMatchesKernelEchoRequests) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    std::ofstream("/proc/sys/net/ipv4/ping_group_range") << "0 0";  // this namespace only
    KorvaTest::LinkCapture capture;
    int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_ICMP);  // the kernel fills in the checksum
    ASSERT_GE(fd, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    inet_pton(AF_INET, KorvaTest::peerIpv4, &peer.sin_addr);
    for (U16 seq = 1; seq <= 3; ++seq) {
      Korva::IcmpHdr echo;
      echo.type.valueIs(Korva::icmpEchoRequest);
      echo.sequenceIs(seq);
      std::string message(reinterpret_cast<const char*>(&echo), sizeof echo);
      message += std::string(seq * 11, char('a' + seq));  // odd and even lengths
      ASSERT_GT(sendto(fd, message.data(), message.size(), 0,
                       reinterpret_cast<const sockaddr*>(&peer), sizeof peer),
                0);
    }
    close(fd);
    auto packets = capture.packets(3, Korva::ipProtoIcmp);
    ASSERT_EQ(packets.size(), 3u);
    for (size_t i = 0; i < packets.size(); ++i) {
      auto ip = Korva::ipHdrWrapperFactory(packets[i], 0);
      auto icmp = Korva::icmpHdrWrapperFactory(packets[i], ip->header()->headerBytes());
      EXPECT_EQ(icmp->header()->sequence(), i + 1);
      EXPECT_EQ(icmp->computedChecksum().value(), 0);
      Korva::IpChecksum kernel = icmp->header()->checksum;
      icmp->header()->checksum.valueIs(0);
      EXPECT_EQ(icmp->computedChecksum(), kernel);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(IcmpHdr, RestOfHeaderFields) {
  Korva::IcmpHdr hdr;
  hdr.idIs(0xABCD);
  hdr.sequenceIs(0x0102);
  const U8 expected[] = {0, 0, 0, 0, 0xAB, 0xCD, 0x01, 0x02};
  EXPECT_EQ(std::memcmp(&hdr, expected, 8), 0);
  EXPECT_EQ(hdr.nextHopMtu(), 0x0102);
  hdr.pointerIs(20);
  EXPECT_EQ(hdr.restOfHeader.value(), 0x14CD0102u);
}

TEST(IcmpHdrDeathTest, HeaderMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(7);
  EXPECT_DEATH(Korva::icmpHdrWrapperFactory(pkt, 0), "sizeof\\( IcmpHdr \\)");
}

}  // namespace
