#include <Korva/TcpHdr.h>

#include "HdrTestUtil.h"
#include "KernelPackets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>

namespace {

using Korva::TcpHdr;
using PktPtr = Mox::Ptr<Korva::Pkt>;

// Per family, two connection attempts, which nobody answers: with TCP Fast Open allowed
// without a cookie, a SYN with its options only and a SYN carrying data of odd length.
TEST(TcpHdr, ChecksumMatchesKernelSegments) {
  std::string skipped = KorvaTest::inPrivateLink([](KorvaTest::LinkCapture& link) {
    std::ofstream("/proc/sys/net/ipv4/tcp_fastopen") << 5;  // this namespace only
    const std::vector<std::string> data = {"", "data carried on the SYN, odd length"};
    for (int family : {AF_INET, AF_INET6}) {
      auto packets = link.send(family, SOCK_STREAM, IPPROTO_TCP, 179, data, MSG_FASTOPEN);
      ASSERT_EQ(packets.size(), 2u);
      for (size_t i = 0; i < packets.size(); ++i) {
        auto check = [&](auto& tcp) {
          const TcpHdr& hdr = *tcp.header();
          EXPECT_TRUE(hdr.syn());
          EXPECT_EQ(hdr.dstPort.value(), 179);
          EXPECT_GT(hdr.headerBytes(), 20u);  // MSS and other options
          EXPECT_EQ(packets[i]->frontBytes() - tcp.offset() - hdr.headerBytes(), data[i].size());
          KorvaTest::expectKernelChecksum(tcp, 0);
        };
        if (family == AF_INET) {
          check(*KorvaTest::transportView(packets[i], Korva::tcpHdrWrapperFactory));
        } else {
          check(*KorvaTest::transportView(packets[i], Korva::tcpHdrWrapperIpv6Factory));
        }
      }
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(TcpHdr, FieldsRoundTrip) {
  KorvaTest::expectFieldsRoundTrip<TcpHdr>({
      KORVA_HDR_FIELD(TcpHdr, dataOffset, 12, 2, 12, 4),
      KORVA_HDR_FIELD(TcpHdr, reserved, 12, 2, 8, 4),
      KORVA_HDR_FIELD(TcpHdr, flags, 12, 2, 0, 8),
      KORVA_HDR_FIELD(TcpHdr, cwr, 12, 2, 7, 1),
      KORVA_HDR_FIELD(TcpHdr, ece, 12, 2, 6, 1),
      KORVA_HDR_FIELD(TcpHdr, urg, 12, 2, 5, 1),
      KORVA_HDR_FIELD(TcpHdr, ack, 12, 2, 4, 1),
      KORVA_HDR_FIELD(TcpHdr, psh, 12, 2, 3, 1),
      KORVA_HDR_FIELD(TcpHdr, rst, 12, 2, 2, 1),
      KORVA_HDR_FIELD(TcpHdr, syn, 12, 2, 1, 1),
      KORVA_HDR_FIELD(TcpHdr, fin, 12, 2, 0, 1),
  });
  TcpHdr hdr;
  hdr.dataOffsetIs(15);
  EXPECT_EQ(hdr.headerBytes(), 60u);
}

TEST(TcpHdrDeathTest, HeaderMustFitTheFirstEntry) {
  PktPtr pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(30);
  EXPECT_DEATH(Korva::tcpHdrWrapperFactory(pkt, 11),
               "Assertion \"\\( offset_ \\+ sizeof\\( TcpHdr \\) \\) <= pkt_->frontBytes\\(\\)\"");
}

}  // namespace
