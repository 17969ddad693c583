#include <Korva/Ip6Hdr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace {

using Korva::U32;
using Korva::U8;

TEST(Ip6Hdr, FirstWordFieldsAreIndependent) {
  std::mt19937 rng(8200);
  for (int i = 0; i < 1000; ++i) {
    Korva::Ip6Hdr hdr;
    U8 version = rng() % 16, trafficClass = U8(rng());
    U32 flow = rng() % (1u << 20);
    hdr.flowLabelIs(flow);
    hdr.versionIs(version);
    hdr.trafficClassIs(trafficClass);
    ASSERT_EQ(hdr.version(), version);
    ASSERT_EQ(hdr.trafficClass(), trafficClass);
    ASSERT_EQ(hdr.flowLabel(), flow);
    ASSERT_EQ(hdr.versionTrafficClassAndFlowLabel.value(),
              U32(version) << 28 | U32(trafficClass) << 20 | flow);
  }
}

TEST(Ip6Hdr, LayoutOfAHeader) {
  Korva::Ip6Hdr hdr;
  hdr.versionIs(6);
  hdr.payloadLen.valueIs(8);
  hdr.nextHeader.valueIs(Korva::ipProtoIpv6HopByHop);
  hdr.hopLimit.valueIs(1);
  hdr.srcAddrIs(Korva::Ip6Addr("fe80::1"));
  hdr.dstAddrIs(Korva::Ip6Addr("ff02::16"));
  EXPECT_EQ(hdr.dstAddr().stringValue(), "ff02::16");
  EXPECT_EQ(hdr.srcAddr(), Korva::Ip6Addr("fe80::1"));
  const U8* bytes = reinterpret_cast<const U8*>(&hdr);
  EXPECT_EQ(bytes[8], 0xfe);
  EXPECT_EQ(bytes[23], 0x01);
  EXPECT_EQ(bytes[39], 0x16);
  EXPECT_EQ(bytes[0], 0x60);
  EXPECT_EQ(bytes[5], 8);
  EXPECT_EQ(bytes[7], 1);
  EXPECT_EQ(bytes[24], 0xff);
}

TEST(Ip6Hdr, HopByHopRouterAlertForMld) {
  struct __attribute__((packed)) {
    Korva::Ip6OptionsHdr hbh;
    Korva::Ip6RouterAlertOption alert;
    Korva::Ip6PadNOption pad;
  } ext;
  ext.hbh.nextHeader.valueIs(Korva::ipProtoIcmpv6);
  const U8 expected[] = {58, 0, 5, 2, 0, 0, 1, 0};
  EXPECT_EQ(std::memcmp(&ext, expected, 8), 0);
  EXPECT_EQ(ext.hbh.headerBytes(), 8u);
  Korva::Ip6Pad1Option pad1;
  EXPECT_EQ(sizeof pad1, 1u);
  EXPECT_EQ(pad1.type.value(), 0);
}

TEST(Ip6HdrDeathTest, HeaderMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(40);
  Korva::ip6HdrWrapperFactory(pkt, 0);
  EXPECT_DEATH(Korva::ip6HdrWrapperFactory(pkt, 1), "sizeof\\( Ip6Hdr \\)");
}

}  // namespace
