#include <Korva/Pkt.h>

#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "ValueTestUtil.h"

namespace {

using Korva::Pkt;
using Korva::U8;
using PktPtr = Mox::Ptr<Pkt>;

PktPtr newPkt() {
  return Korva::globalPktManager()->newPkt();
}

PktPtr pktWith(const std::string& bytes) {
  PktPtr pkt = newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

PktPtr shallowCopy(const PktPtr& pkt) {
  return Korva::globalPktManager()->newShallowCopy(pkt);
}

TEST(PktHeadRoom, NewPktIsAllHeadRoomAndPrependingNeverMovesThePayload) {
  EXPECT_EQ(Korva::globalPktManager()->name(), "Pkt::Manager");
  PktPtr pkt = newPkt();
  EXPECT_EQ(pkt->firstIoVec(), Pkt::maxIovecs_);
  EXPECT_EQ(pkt->stringValue(), "");
  EXPECT_FALSE(pkt->separateVlanTagPresent());
  EXPECT_EQ(pkt->sharedBuffer()->size(), 1536u);
  EXPECT_EQ(pkt->sharedBuffer()->tailRoom(), 0u);

  U8* payload = pkt->newSharedHeadData(20);
  EXPECT_EQ(pkt->bytes(), 20u);
  EXPECT_EQ(pkt->firstIoVec(), 1);
  EXPECT_EQ(pkt->sharedBuffer()->headRoom(), 1516u);
  std::memset(payload, 0xAB, 20);
  const Pkt::SharedBuffer* buffer = pkt->sharedBuffer().get();
  U8* udp = pkt->newSharedHeadData(8);
  U8* ip = pkt->newSharedHeadData(1508);  // exactly the rest of the head room
  EXPECT_EQ(udp, payload - 8);
  EXPECT_EQ(ip, udp - 1508);
  EXPECT_EQ(ip, buffer->buffer());
  EXPECT_EQ(pkt->sharedBuffer().get(), buffer);
  EXPECT_EQ(pkt->frontData(), ip);
  EXPECT_EQ(pkt->bytes(), 1536u);
  EXPECT_EQ(pkt->rawByte(1535), 0xAB);
}

TEST(PktHeadRoom, OutgrowingHeadRoomMovesDataOnceToTheEndOfABiggerBlock) {
  PktPtr pkt = newPkt();
  pkt->newSharedHeadData(2000);
  EXPECT_EQ(pkt->sharedBuffer()->size(), 3536u);
  EXPECT_EQ(pkt->bytes(), 2000u);

  PktPtr grown = pktWith("payload");
  grown->newSharedHeadData(1536 - 7);  // exactly fills the head room: no move
  std::memset(grown->frontData(), 'h', 1536 - 7);
  const Pkt::SharedBuffer* before = grown->sharedBuffer().get();
  U8* front = grown->newSharedHeadData(1);  // one byte more than the head room
  EXPECT_NE(grown->sharedBuffer().get(), before);
  const Pkt::SharedBuffer& buffer = *grown->sharedBuffer();
  EXPECT_EQ(buffer.size(), 1537u);
  EXPECT_EQ(buffer.tailRoom(), 0u);
  EXPECT_EQ(front, buffer.buffer());
  EXPECT_EQ(grown->stringValue().substr(1), std::string(1529, 'h') + "payload");

  Mox::Ptr<Pkt::Manager> jumbo(new Pkt::Manager("jumbo"));
  jumbo->bufferSizeIs(9216);
  EXPECT_EQ(jumbo->newPkt()->sharedBuffer()->headRoom(), 9216u);
}

TEST(PktHeadRoom, TailGrowthKeepsDataAndLeavesHeadRoom) {
  PktPtr pkt = pktWith("abc");
  std::memcpy(pkt->newSharedTailData(2), "de", 2);
  EXPECT_EQ(pkt->stringValue(), "abcde");
  EXPECT_EQ(pkt->sharedBuffer()->headRoom(), Korva::globalPktManager()->reallocHeadRoom());
  U8* more = pkt->newSharedTailData(3);
  EXPECT_EQ(more, pkt->frontData() + 5);
  pkt->delSharedTailData(4);
  pkt->delSharedHeadData(1);
  EXPECT_EQ(pkt->stringValue(), "bcd");
  EXPECT_EQ(pkt->sharedBuffer()->tailRoom(), 4u);
}

TEST(PktBytes, RawBytesAndScatterEntries) {
  std::string frame("\x01\x02\x03\x00\xff\x00", 6);
  PktPtr pkt = pktWith(frame);
  EXPECT_EQ(pkt->stringValue(), frame);
  EXPECT_EQ(pkt->rawByte(4), 0xFF);
  pkt->rawByteIs(0, 0x7E);
  EXPECT_EQ(pkt->stringValue()[0], '\x7E');
  EXPECT_EQ(pkt->iov(1).iov_len, 6u);
  EXPECT_EQ(KorvaTest::failureText([&] { pkt->iov(0); }), "no such iovec");
  EXPECT_EQ(KorvaTest::failureText([&] { pkt->iov(2); }), "no such iovec");
}

TEST(PktShallowCopy, SharesTheBufferWithoutCopying) {
  PktPtr source = pktWith("shared bytes");
  source->newSeparateVlanTag(7, 0x88A8);
  PktPtr copy = shallowCopy(source);
  EXPECT_EQ(copy->sharedBuffer(), source->sharedBuffer());
  EXPECT_EQ(source->sharedBuffer()->references(), 2u);
  EXPECT_EQ(copy->stringValue(), "shared bytes");
  EXPECT_EQ(copy->separateVlanTci(), 7);
  EXPECT_EQ(copy->separateVlanTpid(), 0x88A8);
  copy->rawByteIs(0, 'S');  // one buffer: the source sees it
  EXPECT_EQ(source->stringValue(), "Shared bytes");
  // Refilling gives the source a buffer of its own and drops its tag.
  source->stringValueIs(std::string(3000, 'x'));
  EXPECT_EQ(source->bytes(), 3000u);
  EXPECT_FALSE(source->separateVlanTagPresent());
  EXPECT_EQ(copy->sharedBuffer()->references(), 1u);
  EXPECT_EQ(copy->stringValue(), "Shared bytes");
}

TEST(PktShallowCopy, PrivateHeadPrependsWithoutTouchingTheSharedBuffer) {
  PktPtr source = pktWith("body");
  PktPtr copy = shallowCopy(source);
  std::memcpy(copy->newPrivateHeadData(2), "d:", 2);
  std::memcpy(copy->newPrivateHeadData(3), "hea", 3);
  EXPECT_EQ(copy->firstIoVec(), 0);
  EXPECT_EQ(copy->iovecCount(), 2);
  EXPECT_EQ(copy->frontBytes(), 5u);
  EXPECT_EQ(copy->stringValue(), "head:body");
  EXPECT_EQ(copy->rawByte(5), 'b');
  copy->rawByteIs(8, 'Y');
  EXPECT_EQ(source->stringValue(), "bodY");
  EXPECT_TRUE(copy->guardsIntact());
  copy->delSharedTailData(1);  // a change to the shared bytes drops the private head
  EXPECT_EQ(copy->stringValue(), "bod");
  EXPECT_EQ(copy->privateHeadBytes(), 0u);
}

// Addresses 01..0c, then the EtherType of IPv4.
const std::string frame("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x08\x00", 14);

TEST(PktVlan, SeparateTagIsInsertedAfterTheAddressesAndOffloadedBack) {
  PktPtr pkt = pktWith(frame);
  EXPECT_EQ(pkt->stringValueMaybeWithVlan(), frame);
  pkt->newSeparateVlanTag(5, 0x8100);
  EXPECT_EQ(pkt->stringValueMaybeWithVlan(),
            frame.substr(0, 12) + std::string("\x81\x00\x00\x05", 4) + frame.substr(12));
  EXPECT_EQ(pkt->stringValue(), frame);
  pkt->delSeparateVlanTag();
  EXPECT_FALSE(pkt->separateVlanTagPresent());
  EXPECT_EQ(pkt->separateVlanTci(), 0);
  EXPECT_EQ(pkt->separateVlanTpid(), 0);

  // Offloading takes the outer tag only, once.
  const std::string tag("\x81\x00\xa0\x2a", 4);  // priority 5, VLAN 42
  const std::string doublyTagged = frame.substr(0, 12) + tag + tag + frame.substr(12);
  pkt->stringValueIs(doublyTagged, true);
  EXPECT_EQ(pkt->separateVlanTci(), 0xA02A);
  EXPECT_EQ(pkt->separateVlanTpid(), 0x8100);
  EXPECT_FALSE(Korva::maybeOffloadAnyVlanTag(*pkt));
  EXPECT_EQ(pkt->stringValue(), frame.substr(0, 12) + tag + frame.substr(12));
  EXPECT_EQ(pkt->stringValueMaybeWithVlan(), doublyTagged);
  PktPtr untagged = pktWith(frame + "1234");
  EXPECT_FALSE(Korva::maybeOffloadAnyVlanTag(*untagged));
  EXPECT_EQ(untagged->stringValue(), frame + "1234");
}

TEST(PktLifetime, PacketsOutliveTheThreadThatMadeThem) {
  PktPtr survivor;
  std::thread maker([&survivor] {
    for (int i = 0; i < 300; ++i) newPkt()->newSharedHeadData(10);  // fills the thread's cache
    survivor = pktWith("from another thread");
  });
  maker.join();
  EXPECT_EQ(survivor->stringValue(), "from another thread");
}

TEST(PktDeathTest, Assertions) {
  PktPtr pkt = newPkt();
  EXPECT_DEATH(pkt->rawByte(0), "Assertion \"0\" failed in Korva/Pkt.cpp");
  EXPECT_DEATH(pkt->delSharedHeadData(1),
               "Assertion \"ptrWithinRegion\\( data_, buffer_, size_ \\)\" failed");
  EXPECT_DEATH(pkt->delSharedTailData(1),
               "Assertion \"ptrWithinRegion\\( data_ \\+ dataBytes_, buffer_, size_ \\)\"");
  pkt->newSharedHeadData(4);
  EXPECT_DEATH(pkt->rawByteIs(4, 1), "Assertion \"0\" failed");
  EXPECT_DEATH(pkt->delSharedHeadData(5), "ptrWithinRegion\\( data_, buffer_");
  EXPECT_DEATH(pkt->sharedBuffer()->newTailData(1), "ptrWithinRegion\\( data_ \\+ dataBytes_");
  // The count wraps to 4294967295; the check must not wrap with it on 32-bit pointers.
  EXPECT_DEATH(pkt->delSharedTailData(5), "ptrWithinRegion\\( data_ \\+ dataBytes_");
  EXPECT_DEATH(pkt->sharedBufferIs(Korva::globalPktManager()->newSharedBuffer()),
               "Assertion \"firstIoVec_ == maxIovecs_\" failed");

  pkt->newPrivateHeadData(60);
  EXPECT_DEATH(pkt->newPrivateHeadData(5),
               "Assertion \"n <= privateHeadAreaBytes - privateHeadBytes_\" failed");
  pkt->newPrivateHeadData(4);
  EXPECT_TRUE(pkt->guardsIntact());
  EXPECT_EQ(pkt->bytes(), 68u);

  PktPtr bare(new Pkt);
  EXPECT_DEATH(bare->newSharedHeadData(1), "Assertion \"sharedBuffer_ != 0\" failed");
  EXPECT_DEATH(bare->delSharedTailData(1), "Assertion \"sharedBuffer_ != 0\" failed");
}

}  // namespace
