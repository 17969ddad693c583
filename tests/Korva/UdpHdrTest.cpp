#include <Korva/Ip6Hdr.h>
#include <Korva/IpHdr.h>
#include <Korva/UdpHdr.h>

#include "KernelPackets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <random>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;
using PktPtr = Mox::Ptr<Korva::Pkt>;

const U32 payloadSizes[] = {0, 1, 2, 3, 64, 999, 1400};

// Sends one datagram of each payload size to the link's peer.
template <class SockAddr>
void sendDatagrams(int family, SockAddr addr) {
  int tx = socket(family, SOCK_DGRAM, 0);
  std::mt19937 rng(768);
  for (U32 size : payloadSizes) {
    std::string payload(size, '\0');
    for (char& c : payload) c = char(rng());
    ASSERT_EQ(sendto(tx, payload.data(), size, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr),
              ssize_t(size));
  }
  close(tx);
}

// Our checksum of the kernel's datagram: the whole datagram sums to "valid", and with the
// field cleared we compute what the kernel wrote.
template <class Wrapper>
void expectKernelChecksum(Wrapper& udp) {
  EXPECT_EQ(udp.computedChecksumU16(), udp.validChecksum());
  Korva::IpChecksum kernel = udp.header()->checksum;
  EXPECT_NE(kernel.value(), 0);
  udp.header()->checksum.valueIs(0);
  EXPECT_EQ(udp.computedChecksum(), kernel);
}

TEST(UdpHdr, ChecksumMatchesKernelDatagramsOverIpv4) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    KorvaTest::LinkCapture capture;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(4000);
    inet_pton(AF_INET, KorvaTest::peerIpv4, &addr.sin_addr);
    sendDatagrams(AF_INET, addr);
    auto packets = capture.packets(std::size(payloadSizes), Korva::ipProtoUdp);
    ASSERT_EQ(packets.size(), std::size(payloadSizes));
    for (size_t i = 0; i < packets.size(); ++i) {
      auto ip = Korva::ipHdrWrapperFactory(packets[i], 0);
      ASSERT_EQ(ip->header()->protocolNum(), Korva::ipProtoUdp);
      EXPECT_EQ(ip->computedChecksum().value(), 0);
      auto udp = Korva::udpHdrWrapperFactory(packets[i], ip->header()->headerBytes());
      ASSERT_EQ(udp->header()->len.value(), payloadSizes[i] + 8);
      udp->ipSrcIs(ip->header()->srcAddr());
      udp->ipDstIs(ip->header()->dstAddr());
      EXPECT_EQ(udp->ipSrc(), Korva::IpAddr(10, 199, 0, 1));
      expectKernelChecksum(*udp);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(UdpHdr, ChecksumMatchesKernelDatagramsOverIpv6) {
  std::string skipped = KorvaTest::inPrivateLink([] {
    KorvaTest::LinkCapture capture;
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_port = htons(4000);
    inet_pton(AF_INET6, KorvaTest::peerIpv6, &addr.sin6_addr);
    sendDatagrams(AF_INET6, addr);
    auto packets = capture.packets(std::size(payloadSizes), Korva::ipProtoUdp);
    ASSERT_EQ(packets.size(), std::size(payloadSizes));
    for (size_t i = 0; i < packets.size(); ++i) {
      auto ip = Korva::ip6HdrWrapperFactory(packets[i], 0);
      ASSERT_EQ(ip->header()->nextHeader.value(), Korva::ipProtoUdp);
      EXPECT_EQ(ip->header()->payloadLen.value(), payloadSizes[i] + 8);
      auto udp = Korva::udpHdrWrapperIpv6Factory(packets[i], sizeof(Korva::Ip6Hdr));
      udp->ipSrcIs(ip->header()->srcAddr());
      udp->ipDstIs(ip->header()->dstAddr());
      EXPECT_EQ(udp->ipDst(), Korva::Ip6Addr(KorvaTest::peerIpv6));
      expectKernelChecksum(*udp);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

// A datagram of `payloadLen` bytes behind a UDP header, from 10.0.0.1 to 10.0.0.2.
Mox::Ptr<Korva::UdpHdrWrapper> datagram(const std::string& payload) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  std::memcpy(pkt->newSharedHeadData(U32(payload.size())), payload.data(), payload.size());
  auto* hdr = new (pkt->newSharedHeadData(sizeof(Korva::UdpHdr))) Korva::UdpHdr;
  hdr->srcPort.valueIs(5000);
  hdr->dstPort.valueIs(53);
  hdr->len.valueIs(U16(payload.size() + 8));
  auto udp = Korva::udpHdrWrapperFactory(pkt, 0);
  udp->ipSrcIs(Korva::IpAddr(10, 0, 0, 1));
  udp->ipDstIs(Korva::IpAddr(10, 0, 0, 2));
  return udp;
}

TEST(UdpHdr, ZeroSumIsSentAsAllOnes) {
  auto udp = datagram(std::string(6, '\0'));
  U16 plain = udp->computedChecksumU16();
  ASSERT_NE(plain, 0xFFFF);
  // A payload word equal to the checksum makes the one's-complement sum all ones, whose
  // complement is 0: UDP must send that as 0xFFFF.
  U8* payload = udp->pkt()->frontData() + 8;
  payload[0] = U8(plain >> 8);
  payload[1] = U8(plain);
  EXPECT_EQ(udp->computedChecksumU16(), 0xFFFF);
  udp->header()->checksum = udp->computedChecksum();
  EXPECT_EQ(udp->computedChecksumU16(), Korva::UdpHdrWrapper::validChecksum());
}

TEST(UdpHdr, ChecksumCoversTheLengthFieldOnly) {
  auto udp = datagram("abcdefgh");
  U16 whole = udp->computedChecksumU16();
  udp->pkt()->newSharedTailData(4);  // bytes beyond the datagram do not count
  std::memset(udp->pkt()->frontData() + 16, 0x5A, 4);
  udp->handleHeader();
  EXPECT_EQ(udp->computedChecksumU16(), whole);
  udp->ipDstIs(Korva::IpAddr(10, 0, 0, 3));
  EXPECT_NE(udp->computedChecksumU16(), whole);
}

TEST(UdpHdr, OverstatedLengthReadsNoFurtherThanThePacket) {
  auto udp = datagram("abcdefgh");
  udp->header()->checksum = udp->computedChecksum();
  udp->header()->len.valueIs(60000);
  EXPECT_NE(udp->computedChecksumU16(), Korva::UdpHdrWrapper::validChecksum());
}

TEST(UdpHdrDeathTest, HeaderMustFitTheFirstEntry) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(20);
  Korva::udpHdrWrapperFactory(pkt, 12);  // exactly fits
  EXPECT_DEATH(Korva::udpHdrWrapperFactory(pkt, 13),
               "Assertion \"\\( offset_ \\+ sizeof\\( UdpHdr \\) \\) <= pkt_->frontBytes\\(\\)\"");
  EXPECT_DEATH(Korva::udpHdrWrapperIpv6Factory(pkt, 19), "sizeof\\( UdpHdr \\)");
  EXPECT_THROW(Korva::udpHdrWrapperFactory(nullptr, 0), Mox::RangeException);
}

}  // namespace
