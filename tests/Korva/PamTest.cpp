// Pams: the base's readiness reactors, the test Pam, the connector joining two agents on one
// loop and the multiplexer sharing one Pam among many, the last two in virtual time.
#include <Korva/Pam.h>
#include <Korva/PamConnector.h>
#include <Korva/PamFdSm.h>
#include <Korva/PamMuxDemux.h>
#include <Korva/ReqResponsePamFdSm.h>
#include <Korva/SimpleTestPam.h>
#include <Mox/Activity.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "BoundedRun.h"
#include "SocketTestUtil.h"

namespace {

using Korva::PamConnector;
using Korva::PamConnectorPam;
using Korva::PamMuxDemux;
using Mode = Korva::PamMuxDemux::Mode;
using Mox::Ptr;
using Mox::U32;
using Mox::U8;
using SocketTest::packetOf;

// A Pam over one datagram socket: the smallest concrete Pam.
class SocketTestPam : public Korva::Pam {
 public:
  explicit SocketTestPam(int fd) : Pam("socketTestPam") {
    pamFd.fileDescIs(Mox::make<Mox::FileDescriptor>("socketTestPam", fd), this);
  }
  void doGetRxPkt() override {
    Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
    char buffer[256];
    ssize_t n = recv(pamFd.descriptor(), buffer, sizeof buffer, 0);
    if (n <= 0) return;
    pkt->stringValueIs(std::string(buffer, static_cast<size_t>(n)));
    rxPktHolderIs(pkt);
  }
  Korva::PamFd pamFd;
};

// Records the readiness hooks of a Pam in order.
struct Recorder : Korva::Pam::Notifiee {
  explicit Recorder(Korva::Pam* pam) { notifierIs(pam); }
  void onReadableCount() override { events.push_back("readable"); }
  void onWritableCount() override { events.push_back("writable"); }
  std::vector<std::string> events;
};

TEST(PamDeathTest, BaseReceiveHookAborts) {
  struct BarePam : Korva::Pam {
    BarePam() : Pam("bare") {}
  };
  Ptr<BarePam> pam(new BarePam);
  EXPECT_DEATH(pam->rxPkt(),
               "Assertion \"0 && \"Need to implement doGetRxPkt in a derived class\"\" failed in "
               "Korva/Pam.cpp");
}

TEST(PamFdSm, CreationPollsOnceReadableFirstEvenWithoutDescriptor) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  Recorder recorder(pam.get());
  Ptr<Korva::PamFdSm> fdSm = Korva::PamFdSmIs(Mox::ActivityConfig::current(), nullptr, pam.get());
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"readable", "writable"}));
  EXPECT_EQ(fdSm->fileDesc(), nullptr);
}

TEST(PamFdSm, ReadinessBecomesCountsAndAReactorReadsPackets) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  Ptr<SocketTestPam> pam(new SocketTestPam(pair[0]));
  struct Reader : Korva::Pam::Notifiee {
    void onReadableCount() override {
      // Reads until empty, as agents that drain a Pam do.
      while (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) received.push_back(pkt->stringValue());
    }
    std::vector<std::string> received;
  } reader;
  reader.notifierIs(pam.get());
  ASSERT_EQ(send(pair[1], "one", 3, 0), 3);
  ASSERT_EQ(send(pair[1], "two", 3, 0), 3);
  EXPECT_TRUE(Mox::runUntil([&] { return reader.received.size() == 2; }, 5.0));
  EXPECT_EQ(reader.received, (std::vector<std::string>{"one", "two"}));

  // Without its reactor the Pam hears nothing more from the descriptor.
  const Mox::U32 before = pam->readableCount();
  pam->pamFd.fdSm()->fileDescDel();
  ASSERT_EQ(send(pair[1], "three", 5, 0), 5);
  Mox::runOnce();
  EXPECT_EQ(pam->readableCount(), before);
  close(pair[1]);
}

class RequestPam : public Korva::ReqResponseRawTxPam {
 public:
  RequestPam() : ReqResponseRawTxPam("request") {}
};

TEST(ReqResponsePamFdSm, ReportsWritableOncePerRequest) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  Ptr<RequestPam> pam(new RequestPam);
  pam->fileDescIs(Mox::make<Mox::FileDescriptor>("request", pair[0]));
  pam->fileDesc()->notifyOnReadableIs(false);
  Ptr<Korva::ReqResponsePamFdSm> fdSm =
      Korva::ReqResponsePamFdSmIs(Mox::ActivityConfig::current(), pam->fileDesc(), pam.get());
  const Mox::U32 start = pam->writableCount();
  for (int request = 1; request <= 2; ++request) {
    pam->fileDesc()->notifyOnWritableIs(true);
    EXPECT_TRUE(Mox::runUntil([&] { return pam->writableCount() == start + request; }, 5.0));
    EXPECT_FALSE(pam->fileDesc()->notifyOnWritable());
    Mox::runOnce();
    EXPECT_EQ(pam->writableCount(), start + request) << "one report per request";
  }
  fdSm = nullptr;
  close(pair[1]);
}

TEST(ReqResponsePamFdSmDeathTest, NeedsARequestResponsePam) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  Ptr<Korva::ReqResponsePamFdSm> fdSm =
      Korva::ReqResponsePamFdSmIs(Mox::ActivityConfig::current(), nullptr, pam.get());
  EXPECT_DEATH(fdSm->handleWritable(), "Assertion \"reqResponsePam\" failed");
}

TEST(SimpleTestPam, CountsSentPacketsPerInterface) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  pam->txPktIs(nullptr);
  EXPECT_EQ(pam->txPktCount(), 0u);
  pam->txPktIs(packetOf("a"));
  pam->txIfIndexIs(7);
  pam->txPktIs(packetOf("b"));
  pam->txPktIs(packetOf("c"));
  EXPECT_EQ(pam->txPktCount(), 3u);
  EXPECT_EQ(pam->txPktCounterColl(7), 2u);
  EXPECT_EQ(pam->txPktCounterCollSize(), 1u);
  EXPECT_EQ(pam->txPkt()->stringValue(), "c");
}

TEST(SimpleTestPam, DelaySplitsIntoSecondsAndRoundedUpNanoseconds) {
  timespec delay = Korva::rxPktDelayTimespec(1.5);
  EXPECT_EQ(delay.tv_sec, 1);
  EXPECT_EQ(delay.tv_nsec, 500000000);
  delay = Korva::rxPktDelayTimespec(2.0000000001);
  EXPECT_EQ(delay.tv_sec, 2);
  EXPECT_EQ(delay.tv_nsec, 1);
  delay = Korva::rxPktDelayTimespec(0.99999999999);
  EXPECT_EQ(delay.tv_nsec, 999999999);
}

// --- the connector ---

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

// --- the multiplexer ---

// A source whose every read takes `step` seconds of virtual time.
class SlowPam : public Korva::SimpleTestPam {
 public:
  SlowPam(const std::string& bytes, U32 count, double step) : step_(step) {
    repeatRxPktIs(packetOf(bytes));
    repeatRxPktCntIs(count);
  }
  void doGetRxPkt() override {
    SimpleTestPam::doGetRxPkt();
    if (rxPktHolder() && step_ != 0) Mox::VirtualTime::current()->advance(step_);
  }

 private:
  double step_;
};

// Keys are the packet's first byte, left in place, so a source can repeat one packet; an
// empty packet is invalid and key 9 is filtered out on the way in.
class ByteKeyMux : public PamMuxDemux {
 public:
  using PamMuxDemux::PamMuxDemux;
  U32 decapsulate(const Ptr<Korva::Pkt>& pkt) override {
    return pkt->empty() ? invalidKey : pkt->rawByte(0);
  }
  void doEncapsulate(const Ptr<Korva::Pkt>&, U32 key) override { encapsulated.push_back(key); }
  bool filterManyPamInboundPacket(const Ptr<Korva::Pkt>&, U32 key) override { return key == 9; }
  std::vector<U32> encapsulated;
};

struct TraceOn {
  TraceOn() { Mox::traceConfigIs("PamMuxDemux"); }
  ~TraceOn() { Mox::traceConfigIs(""); }
  Mox::TraceCapture capture;
};

Ptr<SlowPam> slowPam(const std::string& bytes, U32 count, double step = 0.0) {
  return Mox::make<SlowPam>(bytes, count, step);
}

TEST(PamMuxDemux, LongBurstsAreDeferredAndResumedOnePerTurnOldestFirst) {
  Mox::VirtualTime time;
  Ptr<SlowPam> one = slowPam("\x01one", 100, 0.625);
  Ptr<SlowPam> many = slowPam("\x01many", 100, 0.625);
  Ptr<Korva::SimpleTestPam> out = Korva::simpleTestPamFactory();
  Ptr<ByteKeyMux> mux = Mox::make<ByteKeyMux>(one);
  mux->manyPamIs(1, out);
  mux->manyPamSmIs(1, many);
  mux->modeIs(Mode::both);

  one->readableCountInc(1);   // two reads: 1.25 s > 1 s
  many->readableCountInc(1);  // two more
  EXPECT_EQ(Mox::now(), time.start() + 2.5);
  EXPECT_EQ(mux->pamDeferred(), (std::deque<U32>{PamMuxDemux::onePamKey, 1}));
  EXPECT_EQ(mux->clock()->minimumTime(), 0.0);

  // Each turn resumes exactly the oldest source, which defers itself again behind the other.
  const std::vector<std::pair<U32, U32>> afterTurn = {{4, 2}, {4, 4}, {6, 4}, {6, 6}};
  for (size_t turn = 0; turn < afterTurn.size(); ++turn) {
    ASSERT_TRUE(Mox::runOnce());
    EXPECT_EQ(out->txPktCount(), afterTurn[turn].first) << "turn " << turn;
    EXPECT_EQ(one->txPktCount(), afterTurn[turn].second) << "turn " << turn;
  }
  EXPECT_EQ(Mox::now(), time.start() + 7.5);
  EXPECT_EQ(mux->pamDeferred().size(), 2u);
  mux->modeIs(Mode::disabled);  // drains both at once, still in bursts
  EXPECT_TRUE(runUntilBounded([&] { return mux->pamDeferred().empty(); }, 1000.0, 200));
  EXPECT_EQ(one->repeatRxPktCnt() + many->repeatRxPktCnt(), 0u);
  EXPECT_FALSE(mux->clock()->armed());
}

TEST(PamMuxDemux, DeferredQueueIsBoundedAndVanishedKeysAreReported) {
  Mox::VirtualTime time;
  TraceOn trace;
  Ptr<SlowPam> one = slowPam("\x01", 100, 2.0);
  Ptr<SlowPam> many = slowPam("\x02", 100, 2.0);
  Ptr<ByteKeyMux> mux = Mox::make<ByteKeyMux>(one);
  mux->pamDeferredBoundIs(4);
  mux->manyPamSmIs(2, many);
  mux->modeIs(Mode::both);
  many->readableCountInc(1);
  one->readableCountInc(1);
  EXPECT_FALSE(trace.capture.contains("pamDeferred queue is too long"));
  one->readableCountInc(1);
  EXPECT_TRUE(trace.capture.contains("pamDeferred queue is too long"));
  EXPECT_EQ(mux->pamDeferred(), (std::deque<U32>{2, PamMuxDemux::onePamKey}));

  mux->manyPamSmDel(2);
  ASSERT_TRUE(Mox::runOnce());
  EXPECT_TRUE(trace.capture.contains("pamKey 2 not found"));
  EXPECT_EQ(many->repeatRxPktCnt(), 99u);
  EXPECT_EQ(mux->pamDeferred(), (std::deque<U32>{PamMuxDemux::onePamKey}));
}

TEST(PamMuxDemux, ModesChooseTheDirections) {
  struct Case {
    Mode mode;
    bool oneRead, manyRead, delivered, sent;
  };
  for (const Case& c :
       {Case{Mode::disabled, true, true, false, false}, Case{Mode::mux, false, true, false, true},
        Case{Mode::demux, true, false, true, false}, Case{Mode::both, true, true, true, true}}) {
    TraceOn trace;
    Ptr<SlowPam> one = slowPam("\x01in", 1);
    Ptr<SlowPam> many = slowPam("\x01out", 1);
    Ptr<Korva::SimpleTestPam> out = Korva::simpleTestPamFactory();
    Ptr<ByteKeyMux> mux = Mox::make<ByteKeyMux>(one);
    mux->manyPamIs(1, out);
    mux->manyPamSmIs(1, many);
    mux->modeIs(c.mode);
    one->readableCountInc(1);
    many->readableCountInc(1);
    const int mode = int(c.mode);
    EXPECT_EQ(one->repeatRxPktCnt(), c.oneRead ? 0u : 1u) << mode;
    EXPECT_EQ(many->repeatRxPktCnt(), c.manyRead ? 0u : 1u) << mode;
    EXPECT_EQ(out->txPktCount(), c.delivered ? 1u : 0u) << mode;
    EXPECT_EQ(one->txPktCount(), c.sent ? 1u : 0u) << mode;
    EXPECT_EQ(mux->encapsulated, c.sent ? std::vector<U32>{1} : std::vector<U32>{}) << mode;
    EXPECT_EQ(trace.capture.contains("since mode is disabled."), c.mode == Mode::disabled);
  }
}

TEST(PamMuxDemux, UnroutablePacketsAreDroppedWithTheirReason) {
  struct Case {
    bool fromOne;
    std::string bytes;
    const char* trace;
  };
  for (const Case& c :
       {Case{true, "\x05", "No corresponding output for key: 5"}, Case{true, "", "Invalid packet"},
        Case{false, "\x09", " Pkt is filtered out. Discarding "}}) {
    TraceOn trace;
    Ptr<SlowPam> one = slowPam(c.fromOne ? c.bytes : "", 0);
    Ptr<SlowPam> many = slowPam(c.bytes, c.fromOne ? 0 : 1);
    Ptr<Korva::SimpleTestPam> out = Korva::simpleTestPamFactory();
    one->repeatRxPktCntIs(c.fromOne ? 1 : 0);
    Ptr<ByteKeyMux> mux = Mox::make<ByteKeyMux>(one);
    mux->manyPamIs(1, out);
    mux->manyPamSmIs(9, many);
    mux->modeIs(Mode::both);
    one->readableCountInc(1);
    many->readableCountInc(1);
    EXPECT_TRUE(trace.capture.contains(c.trace)) << c.trace;
    EXPECT_EQ(out->txPktCount() + one->txPktCount(), 0u) << c.trace;
    EXPECT_EQ(one->repeatRxPktCnt() + many->repeatRxPktCnt(), 0u) << c.trace;
  }
}

// Against a map as the model: after every change each key's packet goes to the output the
// key has at that moment, or nowhere.
TEST(PamMuxDemux, PacketsFollowTheOutputsAsKeysComeAndGo) {
  constexpr U32 kKeys = 40;
  std::vector<Ptr<Korva::SimpleTestPam>> outputs;
  for (int i = 0; i < 4; ++i) outputs.push_back(Korva::simpleTestPamFactory());
  Ptr<SlowPam> one = slowPam("", 0);
  Ptr<ByteKeyMux> mux = Mox::make<ByteKeyMux>(one);
  mux->modeIs(Mode::demux);
  std::map<U32, Korva::SimpleTestPam*> model;
  std::mt19937 random(5);
  for (int step = 0; step < 300; ++step) {
    const U32 key = random() % kKeys;
    if (const size_t choice = random() % 5; choice == outputs.size()) {
      step % 2 ? mux->manyPamDel(key) : mux->manyPamIs(key, nullptr);
      model.erase(key);
    } else {
      mux->manyPamIs(key, outputs[choice]);
      model[key] = outputs[choice].get();
    }
    for (U32 probe = 0; probe < kKeys; ++probe) {
      std::vector<U32> before;
      for (const auto& output : outputs) before.push_back(output->txPktCount());
      one->repeatRxPktIs(packetOf(std::string(1, char(probe))));
      one->repeatRxPktCntIs(1);
      one->readableCountInc(1);
      Korva::SimpleTestPam* reached = nullptr;
      for (size_t i = 0; i < outputs.size(); ++i) {
        if (outputs[i]->txPktCount() != before[i]) reached = outputs[i].get();
      }
      const auto expected = model.find(probe);
      ASSERT_EQ(reached, expected == model.end() ? nullptr : expected->second)
          << "step " << step << ", key " << probe;
    }
  }
}

TEST(PamMuxDemuxDeathTest, TheBaseCannotDecapsulate) {
  Ptr<PamMuxDemux> mux = Korva::PamMuxDemuxIs(Korva::simpleTestPamFactory());
  EXPECT_DEATH(mux->decapsulate(packetOf("x")),
               "0 && \"Need to implement decapsulate in a derived class\"");
}

TEST(PamKeyMuxDemux, KeyHeaderRoundTripsAndShortPacketsAreInvalid) {
  Ptr<Korva::PamKeyMuxDemux> mux = Korva::PamKeyMuxDemuxIs(Korva::simpleTestPamFactory());
  std::mt19937 random(15);
  for (int i = 0; i < 200; ++i) {
    const U32 key = random() % 2 ? U32(random()) : U32(i);
    if (key == PamMuxDemux::invalidKey) continue;
    const std::string payload(random() % 100, char('a' + i % 26));
    Ptr<Korva::Pkt> pkt = packetOf(payload);
    pkt->newSeparateVlanTag(0x6123, 0x8100);
    mux->doEncapsulate(pkt, key);
    const std::string wire = pkt->stringValue();
    ASSERT_EQ(wire.size(), payload.size() + 4);
    EXPECT_EQ(U32(U8(wire[0])) << 24 | U32(U8(wire[1])) << 16 | U32(U8(wire[2])) << 8 | U8(wire[3]),
              key);
    // Looped back as it is (the header in the private head), or as it comes from a socket.
    Ptr<Korva::Pkt> received = i % 2 ? pkt : packetOf(wire);
    EXPECT_EQ(mux->decapsulate(received), key);
    EXPECT_EQ(received->stringValue(), payload);
    EXPECT_EQ(received->separateVlanTagPresent(), i % 2 == 1);
  }
  for (const std::string& bad : {std::string(), std::string("\x00\x01\x02", 3),
                                 std::string("\xff\xff\xff\xff"
                                             "data")}) {
    EXPECT_EQ(mux->decapsulate(packetOf(bad)), PamMuxDemux::invalidKey);
  }
}

}  // namespace
