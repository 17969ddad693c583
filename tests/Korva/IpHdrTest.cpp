#include <Korva/IpHdr.h>

#include "HdrTestUtil.h"
#include "ValueTestUtil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace {

using Korva::IpHdr;
using Korva::U16;
using Korva::U8;

TEST(IpHdr, ChecksumOfACapturedHeader) {
  const U8 captured[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                           0xb8, 0x61, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
  IpHdr hdr;
  std::memcpy(&hdr, captured, 20);
  EXPECT_EQ(hdr.payloadLen(), 0x73u - 20);
  EXPECT_EQ(hdr.srcAddr(), Korva::IpAddr(192, 168, 0, 1));
  EXPECT_EQ(hdr.computedChecksum().value(), 0);
  hdr.checksum.valueIs(0);
  EXPECT_EQ(hdr.computedChecksum().value(), 0xb861);
}

TEST(IpHdr, FieldsRoundTrip) {
  KorvaTest::expectFieldsRoundTrip<IpHdr>({
      KORVA_HDR_FIELD(IpHdr, version, 0, 1, 4, 4),
      KORVA_HDR_FIELD(IpHdr, headerLen, 0, 1, 0, 4),
      KORVA_HDR_FIELD(IpHdr, dscp, 1, 1, 2, 6),
      KORVA_HDR_FIELD(IpHdr, ecn, 1, 1, 0, 2),
      KORVA_HDR_FIELD(IpHdr, reservedFragFlag, 6, 2, 15, 1),
      KORVA_HDR_FIELD(IpHdr, dontFrag, 6, 2, 14, 1),
      KORVA_HDR_FIELD(IpHdr, moreFrag, 6, 2, 13, 1),
      KORVA_HDR_FIELD(IpHdr, fragmentOffset, 6, 2, 0, 13),
  });
  IpHdr hdr;
  const U8 zeros[20] = {};
  EXPECT_EQ(std::memcmp(&hdr, zeros, 20), 0);
  hdr.versionIs(4);
  hdr.headerBytesIs(24);
  EXPECT_EQ(hdr.versionAndHeaderLen.value(), 0x46);
  EXPECT_TRUE(hdr.hasOptions());
}

TEST(IpHdr, ProtocolNumIsRestrictedToIpv4Protocols) {
  const std::set<int> ipv4 = {1, 2, 6, 17, 46, 47, 51, 89, 94, 103, 112, 115, 124, 132, 253, 254};
  IpHdr hdr;
  for (int p = 0; p < 256; ++p) {
    hdr.proto.valueIs(U8(p));
    ASSERT_EQ(int(hdr.protocolNum()), ipv4.count(p) ? p : 255) << p;
  }
  hdr.protocolNumIs(Korva::ipProtoOspf);
  EXPECT_EQ(hdr.proto.value(), 89);
  EXPECT_EQ(Korva::valueToStrep(Korva::ipProtoIpv6Frag), "ipProtoIpv6Frag");
  EXPECT_STREQ(Korva::ipProtocolNumberName(Korva::IpProtocolNumber(7)), "ipProtoUnknown");
}

TEST(IpHdr, WrapperChecksumsTheHeaderWithOptions) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(10);  // payload
  new (pkt->newSharedHeadData(4)) Korva::IpRouterAlertOption;
  auto* hdr = new (pkt->newSharedHeadData(20)) IpHdr;
  hdr->versionIs(4);
  hdr->headerBytesIs(24);
  hdr->totalLen.valueIs(34);
  auto wrapper = Korva::ipHdrWrapperFactory(pkt, 0);
  EXPECT_EQ(wrapper->header(), hdr);
  const U8 routerAlert[] = {0x94, 0x04, 0x00, 0x00};
  EXPECT_EQ(std::memcmp(hdr->options(), routerAlert, 4), 0);
  U16 oneCall = Korva::ipChksum(hdr, 24);
  hdr->checksum = wrapper->computedChecksum();
  EXPECT_EQ(wrapper->computedChecksum().value(), 0);
  EXPECT_EQ(hdr->checksum.nbo(), oneCall);
  hdr->headerBytesIs(60);  // more than the packet holds: no match, no read past it
  pkt->delSharedTailData(10);
  wrapper->handleHeader();
  EXPECT_NE(wrapper->computedChecksum().value(), 0);
}

TEST(IpHdrDeathTest, Assertions) {
  IpHdr hdr;
  EXPECT_DEATH(hdr.headerBytesIs(22), "Assertion \"\\(b % 4\\) == 0\" failed in Korva/IpHdr.cpp");
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(27);
  EXPECT_DEATH(Korva::ipHdrWrapperFactory(pkt, 8),
               "Assertion \"\\( offset_ \\+ sizeof\\( IpHdr \\) \\) <= pkt_->frontBytes\\(\\)\"");
  EXPECT_EQ(KorvaTest::failureText([] { Korva::ipHdrWrapperFactory(nullptr, 0); }),
            "null ValidPtr");
}

}  // namespace
