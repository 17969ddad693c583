#include <Korva/Ip6Hdr.h>

#include "HdrTestUtil.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Korva::Ip6Hdr;
using Korva::U8;

TEST(Ip6Hdr, FieldsRoundTrip) {
  KorvaTest::expectFieldsRoundTrip<Ip6Hdr>({
      KORVA_HDR_FIELD(Ip6Hdr, version, 0, 4, 28, 4),
      KORVA_HDR_FIELD(Ip6Hdr, trafficClass, 0, 4, 20, 8),
      KORVA_HDR_FIELD(Ip6Hdr, flowLabel, 0, 4, 0, 20),
  });
  Ip6Hdr hdr;
  hdr.srcAddrIs(Korva::Ip6Addr("fe80::1"));
  hdr.dstAddrIs(Korva::Ip6Addr("ff02::16"));
  EXPECT_EQ(hdr.srcAddr(), Korva::Ip6Addr("fe80::1"));
  EXPECT_EQ(hdr.dstAddr(), Korva::Ip6Addr("ff02::16"));
  const U8* bytes = reinterpret_cast<const U8*>(&hdr);
  EXPECT_EQ(bytes[8], 0xfe);
  EXPECT_EQ(bytes[23], 0x01);
  EXPECT_EQ(bytes[24], 0xff);
  EXPECT_EQ(bytes[39], 0x16);
}

TEST(Ip6Hdr, HopByHopRouterAlertForMld) {
  struct __attribute__((packed)) {
    Korva::Ip6OptionsHdr hbh;
    Korva::Ip6RouterAlertOption alert;
    Korva::Ip6PadNOption pad;
    Korva::Ip6Pad1Option pad1;
  } ext;
  ext.hbh.nextHeader.valueIs(Korva::ipProtoIcmpv6);
  const U8 expected[] = {58, 0, 5, 2, 0, 0, 1, 0, 0};
  ASSERT_EQ(sizeof ext, sizeof expected);
  EXPECT_EQ(std::memcmp(&ext, expected, sizeof expected), 0);
  EXPECT_EQ(ext.hbh.headerBytes(), 8u);
}

TEST(Ip6HdrDeathTest, HeaderMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(40);
  Korva::ip6HdrWrapperFactory(pkt, 0);
  EXPECT_DEATH(Korva::ip6HdrWrapperFactory(pkt, 1), "sizeof\\( Ip6Hdr \\)");
}

}  // namespace
