// Packet allocation against malloc + free of the same 1536 bytes, and prepending a header
// in place.

#include <Korva/Pkt.h>

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void BM_NewPktRelease(benchmark::State& state) {
  Korva::Pkt::Manager* manager = Korva::globalPktManager();
  for (auto _ : state) {
    Mox::Ptr<Korva::Pkt> pkt = manager->newPkt();
    benchmark::DoNotOptimize(pkt.get());
  }
}
BENCHMARK(BM_NewPktRelease);

void BM_MallocFree1536(benchmark::State& state) {
  for (auto _ : state) {
    void* block = std::malloc(Korva::Pkt::Manager::defaultBufferSize);
    benchmark::DoNotOptimize(block);
    benchmark::ClobberMemory();
    std::free(block);
  }
}
BENCHMARK(BM_MallocFree1536);

// One Ethernet header in front of a 1400-byte payload and off again: no copy, so the cost
// does not depend on the payload.
void BM_PrependEthHeader(benchmark::State& state) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->newSharedHeadData(1400);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pkt->newSharedHeadData(14));
    pkt->delSharedHeadData(14);
  }
}
BENCHMARK(BM_PrependEthHeader);

}  // namespace
