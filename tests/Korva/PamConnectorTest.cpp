#include <Korva/PamConnector.h>
#include <Mox/Activity.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <gtest/gtest.h>

#include "BoundedRun.h"
#include "SocketTestUtil.h"

#include <string>
#include <vector>

namespace {

using Korva::PamConnector;
using Korva::PamConnectorPam;
using Mox::Ptr;
using SocketTest::packetOf;

Ptr<PamConnector> newConnector() {
  return Korva::PamConnectorIs(Mox::ActivityConfig::current(), Mox::make<Mox::Clock>("connector"));
}

// An agent on one end: reads one packet per readableCount increment, noting when.
struct Reader : PamConnectorPam::Notifiee {
  explicit Reader(PamConnectorPam* end) { notifierIs(end); }
  void onReadableCount() override {
    Ptr<Korva::Pkt> pkt = notifier()->rxPkt();
    received.push_back(pkt ? pkt->stringValue() : "<none>");
    times.push_back(Mox::now());
  }
  std::vector<std::string> received;
  std::vector<double> times;
};

TEST(PamConnector, BurstIsAnnouncedOnOneTickPerPacket) {
  Mox::VirtualTime time;
  Ptr<PamConnector> connector = newConnector();
  PamConnectorPam& pam0 = *connector->pam("pam0");
  PamConnectorPam& pam1 = *connector->pam("pam1");
  EXPECT_EQ(pam0.otherEnd(), &pam1);
  EXPECT_EQ(pam1.otherEnd(), &pam0);
  Reader reader(&pam1);
  std::vector<std::string> sent;
  for (int i = 0; i < 10; ++i) {
    sent.push_back("packet " + std::to_string(i));
    pam0.txPktIs(packetOf(sent.back()));
    time.advance(0.00005);  // later sends leave the armed clock alone
    EXPECT_EQ(connector->clock()->minimumTime(), time.start() + 1.0 / 1024);
  }
  EXPECT_EQ(pam0.writableCount(), 10u);
  EXPECT_TRUE(reader.received.empty());
  ASSERT_TRUE(runUntilBounded([&] { return reader.received.size() == 10; }, 1.0, 10));
  EXPECT_EQ(reader.received, sent);
  EXPECT_EQ(reader.times, std::vector<double>(10, time.start() + 1.0 / 1024));
  EXPECT_EQ(pam1.readableCount(), 10u);
  EXPECT_FALSE(connector->clock()->armed());
  EXPECT_EQ(pam0.readableCount(), 0u);
}

TEST(PamConnector, QueueBoundDropsIntoTheReceiversCount) {
  Mox::traceConfigIs("PamConnector");
  Mox::TraceCapture capture;
  Ptr<PamConnector> connector = newConnector();
  PamConnectorPam& pam0 = *connector->pam("pam0");
  PamConnectorPam& pam1 = *connector->pam("pam1");
  pam1.maxBufferIs(0);
  pam0.txPktIs(packetOf("first"));
  pam0.txPktIs(packetOf("second"));
  pam0.txPktIs(Ptr<Korva::Pkt>());
  Mox::traceConfigIs("");
  EXPECT_EQ(pam1.rxDrops(), 1u);
  EXPECT_EQ(pam0.rxDrops(), 0u);
  EXPECT_EQ(pam0.writableCount(), 1u);
  EXPECT_TRUE(capture.contains("PamConnector: enqueue, total packets: 1"));
  EXPECT_TRUE(capture.contains("Dropping packet"));
  EXPECT_EQ(pam1.rxPkt()->stringValue(), "first");
  EXPECT_FALSE(pam1.rxPkt());
  EXPECT_FALSE(pam0.rxPkt());
}

TEST(PamConnector, VlanOffloadMovesAnUnrecordedTagOnly) {
  const std::string macs(12, '\x02');
  const std::string tag("\x81\x00\x61\x23", 4);  // priority 3, VLAN 0x123
  const std::string rest("\x08\x00payload", 9);
  struct Case {
    bool offload, alreadyTagged;
    std::string bytes;
    Mox::U16 tci;
  };
  for (const Case& c :
       {Case{true, false, macs + rest, 0x6123}, Case{true, true, macs + tag + rest, 0x0007},
        Case{false, false, macs + tag + rest, 0}}) {
    Ptr<PamConnector> connector = newConnector();
    connector->vlanOffloadEnIs(c.offload);
    Ptr<Korva::Pkt> pkt = packetOf(macs + tag + rest);
    if (c.alreadyTagged) pkt->newSeparateVlanTag(0x0007, 0x8100);
    connector->pam("pam0")->txPktIs(pkt);
    Ptr<Korva::Pkt> received = connector->pam("pam1")->rxPkt();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->stringValue(), c.bytes);
    EXPECT_EQ(received->separateVlanTagPresent(), c.tci != 0);
    EXPECT_EQ(received->separateVlanTci(), c.tci);
  }
}

TEST(PamConnector, WatchedSenderRecordsWhatItSent) {
  Ptr<PamConnector> connector = newConnector();
  Ptr<PamConnectorPam> pam0 = connector->pam("pam0");
  pam0->txPktIs(packetOf("unwatched"));
  EXPECT_EQ(pam0->peekPktCount(), 0u);
  Reader observer(pam0.get());
  Ptr<Korva::Pkt> pkt = packetOf("watched");
  pam0->txPktIs(pkt);
  EXPECT_EQ(pam0->peekPktCount(), 1u);
  EXPECT_EQ(pam0->peekPkt().get(), pkt.get());
  // Once the connector goes, an end still held sends nowhere.
  connector = nullptr;
  pam0->txPktIs(packetOf("orphan"));
  EXPECT_EQ(pam0->peekPktCount(), 1u);
}

}  // namespace
