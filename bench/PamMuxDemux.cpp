// Demultiplexing: packets carrying a 4-byte key header read from a SimpleTestPam-like
// source by a PamKeyMuxDemux and sent on the output Pam of their key, against reading the
// same source directly and doing the same work by hand (take the header off, pick the
// output by key, send). `ratio` is direct_ns / ours_ns per packet; the goal is >= 0.77
// (at most 1.3 times the cost).

#include "SideBySide.h"

#include <Korva/PamMuxDemux.h>
#include <Korva/SimpleTestPam.h>

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using Mox::U32;
using Mox::U8;

constexpr U32 kKeys = 8;

// Yields a burst of packets, cycling over one prepared packet per key. A packet whose
// header was taken off gets it back (the bytes are still in the head room).
class BurstPam : public Korva::SimpleTestPam {
 public:
  BurstPam() {
    for (U32 key = 0; key < kKeys; ++key) {
      pkts_.push_back(Korva::globalPktManager()->newPkt());
      std::string bytes = {0, 0, 0, char(key)};
      pkts_.back()->stringValueIs(bytes + std::string(64, char('a' + key)));
    }
  }
  void burstIs(U32 count) { remaining_ = count; }
  void doGetRxPkt() override {
    if (remaining_ == 0) return;
    const Ptr<Korva::Pkt>& pkt = pkts_[--remaining_ % kKeys];
    if (pkt->bytes() == kPayloadBytes) pkt->newSharedHeadData(Korva::PamKeyMuxDemux::headerBytes);
    rxPktHolderIs(pkt);
  }

 private:
  static constexpr U32 kPayloadBytes = 64;
  std::vector<Ptr<Korva::Pkt>> pkts_;
  U32 remaining_ = 0;
};

void BM_Ratio(benchmark::State& state) {
  Ptr<BurstPam> source = Mox::make<BurstPam>();
  std::vector<Ptr<Korva::SimpleTestPam>> outputs;
  Ptr<Korva::PamKeyMuxDemux> mux = Korva::PamKeyMuxDemuxIs(source);
  for (U32 key = 0; key < kKeys; ++key) {
    outputs.push_back(Korva::simpleTestPamFactory());
    mux->manyPamIs(key, outputs.back());
  }
  mux->modeIs(Korva::PamMuxDemux::Mode::demux);
  auto startBurst = [&](size_t i) {
    if (i + 1 != bench::batch) return false;
    source->burstIs(bench::batch);
    return true;
  };
  bench::compareSideBySide(
      state, "direct",
      [&](size_t i) {
        if (!startBurst(i)) return;
        source->readableCountInc(1);
      },
      [&](size_t i) {
        if (!startBurst(i)) return;
        while (Ptr<Korva::Pkt> pkt = source->rxPkt()) {
          const U8* header = pkt->frontData();
          const U32 key =
              U32(header[0]) << 24 | U32(header[1]) << 16 | U32(header[2]) << 8 | header[3];
          pkt->delSharedHeadData(Korva::PamKeyMuxDemux::headerBytes);
          if (key < kKeys) outputs[key]->txPktIs(pkt);
        }
      });
  U32 sent = 0;
  for (const auto& output : outputs) sent += output->txPktCount();
  if (sent % (2 * bench::batch) != 0) state.SkipWithError("packets went astray");
}

}  // namespace

BENCHMARK(BM_Ratio)->MinTime(0.2);
BENCHMARK_MAIN();
