#include <Korva/PamMuxDemux.h>
#include <Korva/SimpleTestPam.h>
#include <Mox/Activity.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <gtest/gtest.h>

#include "BoundedRun.h"
#include "SocketTestUtil.h"

#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using Korva::PamMuxDemux;
using Mode = Korva::PamMuxDemux::Mode;
using Mox::Ptr;
using Mox::U32;
using Mox::U8;
using SocketTest::packetOf;

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
