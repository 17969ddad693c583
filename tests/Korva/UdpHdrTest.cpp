#include <Korva/UdpHdr.h>

#include "KernelPackets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <random>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;
using PktPtr = Mox::Ptr<Korva::Pkt>;

TEST(UdpHdr, ChecksumMatchesKernelDatagrams) {
  std::mt19937 rng(768);
  std::vector<std::string> payloads;
  for (U32 size : {0, 1, 2, 3, 64, 999, 1400}) {
    payloads.emplace_back(size, '\0');
    for (char& c : payloads.back()) c = char(rng());
  }
  std::string skipped = KorvaTest::inPrivateLink([&](KorvaTest::LinkCapture& link) {
    for (int family : {AF_INET, AF_INET6}) {
      auto packets = link.send(family, SOCK_DGRAM, IPPROTO_UDP, 4000, payloads);
      ASSERT_EQ(packets.size(), payloads.size());
      for (size_t i = 0; i < packets.size(); ++i) {
        auto check = [&](auto& udp) {
          EXPECT_EQ(udp.header()->len.value(), payloads[i].size() + 8);
          KorvaTest::expectKernelChecksum(udp, udp.validChecksum());
        };
        if (family == AF_INET) {
          check(*KorvaTest::transportView(packets[i], Korva::udpHdrWrapperFactory));
        } else {
          check(*KorvaTest::transportView(packets[i], Korva::udpHdrWrapperIpv6Factory));
        }
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
