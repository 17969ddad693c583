#include <Korva/EthHdr.h>

#include "HdrTestUtil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;

// A frame from the EtherType fields (outer first), a TCI in front of every inner one, with
// room for an IP header behind.
std::string frameWithTypes(std::initializer_list<U16> types) {
  std::string frame(12, '\x11');
  for (U16 type : types) {
    if (frame.size() > 12) frame.append("\x20\x05", 2);
    frame += {char(type >> 8), char(type)};
  }
  return frame + std::string(20, '\0');
}

U32 offsetOf(const std::string& frame, U32 len) {
  return Korva::ipHdrOffset(*reinterpret_cast<const Korva::EthHdr*>(frame.data()), len);
}

TEST(EthHdr, IpHdrOffsetFollowsDot1QTagsOnly) {
  EXPECT_EQ(offsetOf(frameWithTypes({0x0800}), 34), 14u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x86DD}), 34), 14u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x0800}), 38), 18u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x8100, 0x8100, 0x86DD}), 46), 26u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x0806}), 34), 0u);          // ARP
  EXPECT_EQ(offsetOf(frameWithTypes({0x88A8, 0x0800}), 38), 0u);  // 802.1ad not followed
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x9100, 0x0800}), 42), 0u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x0806}), 38), 0u);
  EXPECT_EQ(offsetOf(frameWithTypes({0x05DC}), 34), 0u);          // 802.3 length: LLC
  EXPECT_EQ(offsetOf(frameWithTypes({0x0800}), 13), 0u);          // too short for the header
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x0800}), 17), 0u);  // tag cut off
  EXPECT_EQ(offsetOf(frameWithTypes({0x8100, 0x0800}), 18), 18u);
}

TEST(EthHdr, WrapperFindsIpHeaderBehindItsOffset) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs("pad" + frameWithTypes({0x8100, 0x86DD}));
  auto eth = Korva::ethHdrWrapperFactory(pkt, 3);
  EXPECT_EQ(eth->ipHdrOffset(), 18u);
  EXPECT_EQ(eth->header()->ethType.value(), 0x8100);
  auto tag = Korva::eth8021QHdrWrapperFactory(pkt, 3 + 14);
  EXPECT_EQ(tag->ipHdrOffset(), 4u);
  EXPECT_EQ(tag->header()->vlanId(), 5);
  EXPECT_THROW(Korva::ethHdrWrapperFactory(nullptr, 0), Mox::RangeException);
}

TEST(EthHdr, FieldsRoundTrip) {
  using Korva::Eth8021QHdr;
  using Korva::Eth8022SnapHdr;
  KorvaTest::expectFieldsRoundTrip<Eth8021QHdr>({
      KORVA_HDR_FIELD(Eth8021QHdr, priority, 0, 2, 13, 3),
      KORVA_HDR_FIELD(Eth8021QHdr, dropEligible, 0, 2, 12, 1),
      KORVA_HDR_FIELD(Eth8021QHdr, vlanId, 0, 2, 0, 12),
  });
  KorvaTest::expectFieldsRoundTrip<Eth8022SnapHdr>({
      KORVA_HDR_FIELD(Eth8022SnapHdr, ouiValue, 3, 3, 0, 24),
  });
  const Eth8022SnapHdr snap;
  const U8 snapDefault[] = {0xAA, 0xAA, 0x03, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(&snap, snapDefault, sizeof snap), 0);
}

TEST(EthHdrDeathTest, WrapperMustFitTheFirstEntry) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(20, 'x'));
  EXPECT_DEATH(Korva::ethHdrWrapperFactory(pkt, 7),
               "Assertion \"\\( offset_ \\+ sizeof\\( EthHdr \\) \\) <= pkt_->frontBytes\\(\\)\"");
  EXPECT_DEATH(Korva::eth8022SnapHdrWrapperFactory(pkt, 13), "sizeof\\( Eth8022SnapHdr \\)");
}

}  // namespace
