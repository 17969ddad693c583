#include <Korva/IcmpHdr.h>
#include <Korva/IpHdr.h>

#include "HdrTestUtil.h"
#include "KernelPackets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>

namespace {

using Korva::U16;

TEST(IcmpHdr, ChecksumMatchesKernelEchoRequests) {
  std::vector<std::string> messages;
  for (U16 seq = 1; seq <= 3; ++seq) {
    Korva::IcmpHdr echo;
    echo.type.valueIs(Korva::icmpEchoRequest);
    echo.sequenceIs(seq);
    messages.emplace_back(reinterpret_cast<const char*>(&echo), sizeof echo);
    messages.back() += std::string(seq * 11, char('a' + seq));  // odd and even lengths
  }
  std::string skipped = KorvaTest::inPrivateLink([&](KorvaTest::LinkCapture& link) {
    std::ofstream("/proc/sys/net/ipv4/ping_group_range") << "0 0";  // this namespace only
    // A ping socket: the kernel fills in the checksum.
    auto packets = link.send(AF_INET, SOCK_DGRAM, IPPROTO_ICMP, 0, messages);
    ASSERT_EQ(packets.size(), 3u);
    for (size_t i = 0; i < packets.size(); ++i) {
      auto ip = Korva::ipHdrWrapperFactory(packets[i], 0);
      auto icmp = Korva::icmpHdrWrapperFactory(packets[i], ip->header()->headerBytes());
      EXPECT_EQ(icmp->header()->sequence(), i + 1);
      KorvaTest::expectKernelChecksum(*icmp, 0);
    }
  });
  if (!skipped.empty()) GTEST_SKIP() << "no private namespace (" << skipped << ")";
}

TEST(IcmpHdr, FieldsRoundTrip) {
  using Korva::IcmpHdr;
  KorvaTest::expectFieldsRoundTrip<IcmpHdr>({
      KORVA_HDR_FIELD(IcmpHdr, id, 4, 4, 16, 16),
      KORVA_HDR_FIELD(IcmpHdr, sequence, 4, 4, 0, 16),
      KORVA_HDR_FIELD(IcmpHdr, nextHopMtu, 4, 4, 0, 16),
      KORVA_HDR_FIELD(IcmpHdr, pointer, 4, 4, 24, 8),
  });
}

TEST(IcmpHdrDeathTest, HeaderMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(7);
  EXPECT_DEATH(Korva::icmpHdrWrapperFactory(pkt, 0), "sizeof\\( IcmpHdr \\)");
}

}  // namespace
