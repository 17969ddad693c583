#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/TcpHdr.h>

#include "KernelPackets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;
using PktPtr = Mox::Ptr<Korva::Pkt>;

const std::string fastOpenData = "data carried on the SYN, odd length";

// Two connection attempts to the link's peer: a plain SYN (with its options) and, with
// TCP Fast Open allowed without a cookie, a SYN carrying data. Nobody answers.
template <class SockAddr>
void sendSyns(int family, const SockAddr& peer) {
  std::ofstream("/proc/sys/net/ipv4/tcp_fastopen") << 5;  // this namespace only
  int plain = socket(family, SOCK_STREAM | SOCK_NONBLOCK, 0);
  connect(plain, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  int withData = socket(family, SOCK_STREAM | SOCK_NONBLOCK, 0);
  sendto(withData, fastOpenData.data(), fastOpenData.size(), MSG_FASTOPEN,
         reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  close(plain);
  close(withData);
}

template <class Wrapper>
void expectKernelChecksum(Wrapper& tcp) {
  EXPECT_TRUE(tcp.header()->syn());
  EXPECT_EQ(tcp.computedChecksumU16(), 0);  // the whole segment sums to all ones
  Korva::IpChecksum kernel = tcp.header()->checksum;
  tcp.header()->checksum.valueIs(0);
  EXPECT_EQ(tcp.computedChecksum(), kernel);
}

bool carriesData(const PktPtr& pkt, U32 tcpOffset) {
  auto tcp = Korva::tcpHdrWrapperFactory(pkt, tcpOffset);
  return pkt->frontBytes() - tcpOffset > tcp->header()->headerBytes();
}

TEST(TcpHdr, ChecksumMatchesKernelSegmentsOverIpv4) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    KorvaTest::LinkCapture capture;
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(179);
    inet_pton(AF_INET, KorvaTest::peerIpv4, &peer.sin_addr);
    sendSyns(AF_INET, peer);
    auto packets = capture.packets(2, Korva::ipProtoTcp);
    ASSERT_GE(packets.size(), 2u);
    bool sawData = false;
    for (const PktPtr& pkt : packets) {
      auto ip = Korva::ipHdrWrapperFactory(pkt, 0);
      auto tcp = Korva::tcpHdrWrapperFactory(pkt, ip->header()->headerBytes());
      EXPECT_GT(tcp->header()->headerBytes(), 20u);  // MSS and other options
      EXPECT_EQ(tcp->header()->dstPort.value(), 179);
      tcp->ipSrcIs(ip->header()->srcAddr());
      tcp->ipDstIs(ip->header()->dstAddr());
      sawData |= carriesData(pkt, ip->header()->headerBytes());
      expectKernelChecksum(*tcp);
    }
    EXPECT_TRUE(sawData) << "no SYN with data: the checksum over a payload went unchecked";
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(TcpHdr, ChecksumMatchesKernelSegmentsOverIpv6) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    KorvaTest::LinkCapture capture;
    sockaddr_in6 peer{};
    peer.sin6_family = AF_INET6;
    peer.sin6_port = htons(179);
    inet_pton(AF_INET6, KorvaTest::peerIpv6, &peer.sin6_addr);
    sendSyns(AF_INET6, peer);
    auto packets = capture.packets(2, Korva::ipProtoTcp);
    ASSERT_GE(packets.size(), 2u);
    for (const PktPtr& pkt : packets) {
      auto ip = Korva::ip6HdrWrapperFactory(pkt, 0);
      auto tcp = Korva::tcpHdrWrapperIpv6Factory(pkt, sizeof(Korva::Ip6Hdr));
      tcp->ipSrcIs(ip->header()->srcAddr());
      tcp->ipDstIs(ip->header()->dstAddr());
      expectKernelChecksum(*tcp);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(TcpHdr, FlagsAndDataOffsetShareOneWord) {
  Korva::TcpHdr hdr;
  hdr.dataOffsetIs(15);
  hdr.synIs(true);
  hdr.ackIs(true);
  EXPECT_EQ(hdr.dataOffsetAndFlags.value(), 0xF012);
  EXPECT_EQ(hdr.headerBytes(), 60u);
  hdr.finIs(true);
  hdr.cwrIs(true);
  hdr.synIs(false);
  EXPECT_EQ(hdr.flags(), 0x91);
  EXPECT_TRUE(hdr.fin() && hdr.ack() && hdr.cwr());
  EXPECT_FALSE(hdr.syn() || hdr.rst() || hdr.psh() || hdr.urg() || hdr.ece());
  hdr.reservedIs(0xF);
  hdr.flagsIs(0);
  EXPECT_EQ(hdr.dataOffsetAndFlags.value(), 0xFF00);
  EXPECT_EQ(hdr.dataOffset(), 15);
}

TEST(TcpHdrDeathTest, HeaderMustFitTheFirstEntry) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(30);
  EXPECT_DEATH(Korva::tcpHdrWrapperFactory(pkt, 11),
               "Assertion \"\\( offset_ \\+ sizeof\\( TcpHdr \\) \\) <= pkt_->frontBytes\\(\\)\"");
}

}  // namespace
