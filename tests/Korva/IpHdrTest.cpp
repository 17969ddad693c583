#include <Korva/IpHdr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

namespace {

using Korva::IpHdr;
using Korva::U16;
using Korva::U32;
using Korva::U8;

// A real header (from a capture), checksum b861.
const U8 capturedHeader[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                               0xb8, 0x61, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};

TEST(IpHdr, DefaultIsAllZeros) {
  IpHdr hdr;
  U8 zeros[20] = {};
  EXPECT_EQ(std::memcmp(&hdr, zeros, 20), 0);
}

TEST(IpHdr, ReadsACapturedHeader) {
  IpHdr hdr;
  std::memcpy(&hdr, capturedHeader, 20);
  EXPECT_EQ(hdr.version(), 4);
  EXPECT_EQ(hdr.headerBytes(), 20u);
  EXPECT_FALSE(hdr.hasOptions());
  EXPECT_EQ(hdr.totalLen.value(), 0x73);
  EXPECT_EQ(hdr.payloadLen(), 0x73u - 20);
  EXPECT_TRUE(hdr.dontFrag());
  EXPECT_FALSE(hdr.moreFrag());
  EXPECT_EQ(hdr.fragmentOffset(), 0);
  EXPECT_EQ(hdr.ttl.value(), 64);
  EXPECT_EQ(hdr.protocolNum(), Korva::ipProtoUdp);
  EXPECT_EQ(hdr.checksum.value(), 0xb861);
  EXPECT_EQ(hdr.src.value(), 0xc0a80001u);
  EXPECT_EQ(hdr.computedChecksum().value(), 0);
  hdr.checksum.valueIs(0);
  EXPECT_EQ(hdr.computedChecksum().value(), 0xb861);
}

TEST(IpHdr, SubFieldsAreIndependent) {
  std::mt19937 rng(791);
  for (int i = 0; i < 1000; ++i) {
    IpHdr hdr;
    U8 version = rng() % 16, words = rng() % 16, dscp = rng() % 64, ecn = rng() % 4;
    U16 offset = rng() % 8192;
    bool df = rng() & 1, mf = rng() & 1, reserved = rng() & 1;
    hdr.headerLenIs(words);
    hdr.versionIs(version);
    hdr.ecnIs(ecn);
    hdr.dscpIs(dscp);
    hdr.moreFragIs(mf);
    hdr.fragmentOffsetIs(offset);
    hdr.reservedFragFlagIs(reserved);
    hdr.dontFragIs(df);
    ASSERT_EQ(hdr.version(), version);
    ASSERT_EQ(hdr.headerLen(), words);
    ASSERT_EQ(hdr.versionAndHeaderLen.value(), version << 4 | words);
    ASSERT_EQ(hdr.dscp(), dscp);
    ASSERT_EQ(hdr.ecn(), ecn);
    ASSERT_EQ(hdr.fragmentOffset(), offset);
    ASSERT_EQ(hdr.fragmentOffsetAndFlags.value(), reserved << 15 | df << 14 | mf << 13 | offset);
  }
  IpHdr hdr;
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
  EXPECT_EQ(Korva::valueToStrep(Korva::ipProtoUnknown), "ipProtoUnknown");
  EXPECT_STREQ(Korva::ipProtocolNumberName(Korva::IpProtocolNumber(7)), "ipProtoUnknown");
}

TEST(IpHdr, RouterAlertOptionBytes) {
  Korva::IpRouterAlertOption option;
  const U8 expected[] = {0x94, 0x04, 0x00, 0x00};
  EXPECT_EQ(std::memcmp(&option, expected, 4), 0);
  EXPECT_TRUE(option.copied());
  EXPECT_EQ(option.optionClass(), 0);
  EXPECT_EQ(option.number(), 20);
}

TEST(IpHdr, WrapperChecksumsTheHeaderWithOptions) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(10);  // payload
  new (pkt->newSharedHeadData(4)) Korva::IpRouterAlertOption;
  auto* hdr = new (pkt->newSharedHeadData(20)) IpHdr;
  hdr->versionIs(4);
  hdr->headerBytesIs(24);
  hdr->totalLen.valueIs(34);
  hdr->ttl.valueIs(1);
  hdr->protocolNumIs(Korva::ipProtoIgmp);
  auto wrapper = Korva::ipHdrWrapperFactory(pkt, 0);
  EXPECT_EQ(wrapper->header(), hdr);
  U16 oneCall = Korva::ipChksum(hdr, 24);
  hdr->checksum = wrapper->computedChecksum();
  EXPECT_EQ(wrapper->computedChecksum().value(), 0);
  EXPECT_EQ(hdr->checksum.nbo(), oneCall);
  EXPECT_EQ(hdr->payloadLen(), 10u);
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
  try {
    Korva::ipHdrWrapperFactory(nullptr, 0);
    FAIL();
  } catch (const Mox::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
}

}  // namespace
