#include <Korva/UdpHdr.h>

#include "KernelPackets.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <random>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;
using PktPtr = Mox::Ptr<Korva::Pkt>;

TEST(UdpHdr, ChecksumMatchesKernelDatagrams) {
  const U32 payloadSizes[] = {0, 1, 2, 3, 64, 999, 1400};
  const size_t count = std::size(payloadSizes);
  std::string skipped = KorvaTest::inPrivateLink([&](KorvaTest::LinkCapture& capture) {
    std::mt19937 rng(768);
    for (int family : {AF_INET, AF_INET6}) {
      int tx = socket(family, SOCK_DGRAM, 0);
      const KorvaTest::PeerAddress peer = KorvaTest::peerAddress(family, 4000);
      for (U32 size : payloadSizes) {
        std::string payload(size, '\0');
        for (char& c : payload) c = char(rng());
        ASSERT_EQ(sendto(tx, payload.data(), size, 0, peer.get(), peer.length), ssize_t(size));
      }
      close(tx);
    }
    auto packets = capture.packets(2 * count, Korva::ipProtoUdp);
    ASSERT_EQ(packets.size(), 2 * count);
    for (size_t i = 0; i < packets.size(); ++i) {
      auto check = [&](auto& udp) {
        EXPECT_EQ(udp.header()->len.value(), payloadSizes[i % count] + 8);
        KorvaTest::expectKernelChecksum(udp, udp.validChecksum());
      };
      if (i < count) {
        check(*KorvaTest::transportView(packets[i], Korva::udpHdrWrapperFactory));
      } else {
        check(*KorvaTest::transportView(packets[i], Korva::udpHdrWrapperIpv6Factory));
      }
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

// A datagram carrying `payload` behind a UDP header, from 10.0.0.1 to 10.0.0.2.
Mox::Ptr<Korva::UdpHdrWrapper> datagram(const std::string& payload) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(sizeof(Korva::UdpHdr), '\0') + payload);
  auto udp = Korva::udpHdrWrapperFactory(pkt, 0);
  udp->header()->srcPort.valueIs(5000);
  udp->header()->len.valueIs(U16(payload.size() + 8));
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

TEST(UdpHdr, ChecksumCoversTheLengthFieldAndNoFurtherThanThePacket) {
  auto udp = datagram("abcdefgh");
  U16 whole = udp->computedChecksumU16();
  udp->pkt()->newSharedTailData(4);  // bytes beyond the datagram do not count
  std::memset(udp->pkt()->frontData() + 16, 0x5A, 4);
  udp->handleHeader();
  EXPECT_EQ(udp->computedChecksumU16(), whole);
  udp->ipDstIs(Korva::IpAddr(10, 0, 0, 3));
  EXPECT_NE(udp->computedChecksumU16(), whole);
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
