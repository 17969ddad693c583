// Packets from one end of a PamConnector to the other (send, clock tick, one readableCount
// increment and one rxPkt() per packet) against a bare std::deque hand-off of the same
// packets on the same event loop (push, a clock armed 1/1024 s ahead, pop on the tick).
// Both run under virtual time, so the tick costs a loop turn and no real wait. `ratio` is
// deque_ns / ours_ns per packet; the goal is >= 0.33 (at most three times the cost).

#include "SideBySide.h"

#include <Korva/PamConnector.h>
#include <Mox/Activity.h>
#include <Mox/Time.h>

#include <deque>
#include <string>
#include <vector>

namespace {

using Mox::Ptr;

constexpr double kTick = 1.0 / 1024;

std::vector<Ptr<Korva::Pkt>> packets() {
  std::vector<Ptr<Korva::Pkt>> pkts;
  for (int i = 0; i < 16; ++i) {
    pkts.push_back(Korva::globalPktManager()->newPkt());
    pkts.back()->stringValueIs(std::string(64, char('a' + i)));
  }
  return pkts;
}

// The receiving agent: one rxPkt() per announced packet.
struct Reader : Korva::PamConnectorPam::Notifiee {
  explicit Reader(Korva::PamConnectorPam* end) { notifierIs(end); }
  void onReadableCount() override {
    if (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) bytes += pkt->bytes();
  }
  size_t bytes = 0;
};

// What a user would write by hand: a deque and a clock.
class DequeHandOff : public Mox::Clock::Notifiee {
 public:
  DequeHandOff() : clock_(Mox::make<Mox::Clock>("deque")) { notifierIs(clock_); }
  void send(const Ptr<Korva::Pkt>& pkt) {
    queue_.push_back(pkt);
    if (!clock_->armed()) clock_->minimumTimeIs(Mox::now() + kTick);
  }
  void onTime() override {
    clock_->minimumTimeIs(Mox::kNever);
    while (!queue_.empty()) {
      bytes += queue_.front()->bytes();
      queue_.pop_front();
    }
  }
  size_t bytes = 0;

 private:
  Ptr<Mox::Clock> clock_;
  std::deque<Ptr<Korva::Pkt>> queue_;
};

void BM_Ratio(benchmark::State& state) {
  Mox::VirtualTime time;
  const std::vector<Ptr<Korva::Pkt>> pkts = packets();
  Ptr<Korva::PamConnector> connector =
      Korva::PamConnectorIs(Mox::ActivityConfig::current(), Mox::make<Mox::Clock>("connector"));
  connector->pam("pam1")->maxBufferIs(bench::batch);
  Korva::PamConnectorPam& sender = *connector->pam("pam0");
  Reader reader(connector->pam("pam1").get());
  DequeHandOff handOff;
  // The last send of a batch runs the one loop turn of the tick.
  auto deliver = [](size_t i) {
    if (i + 1 == bench::batch) Mox::runOnce(1.0);
  };
  bench::compareSideBySide(
      state, "deque",
      [&](size_t i) {
        sender.txPktIs(pkts[i % pkts.size()]);
        deliver(i);
      },
      [&](size_t i) {
        handOff.send(pkts[i % pkts.size()]);
        deliver(i);
      });
  if (reader.bytes != handOff.bytes) state.SkipWithError("the two sides delivered differently");
}

}  // namespace

BENCHMARK(BM_Ratio)->MinTime(0.2);
BENCHMARK_MAIN();
