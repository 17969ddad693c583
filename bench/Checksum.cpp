// The Internet checksum against memcpy of the same buffer (bytes per second).

#include <Korva/Checksum.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

std::vector<Korva::U8> buffer(size_t len) {
  std::vector<Korva::U8> bytes(len);
  for (size_t i = 0; i < len; ++i) bytes[i] = Korva::U8(i * 131 + 7);
  return bytes;
}

void BM_IpChecksumCalc(benchmark::State& state) {
  auto bytes = buffer(size_t(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(Korva::ipChecksumCalc(bytes.data(), Korva::U32(bytes.size()), 0));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_IpChecksumCalc)->Arg(64)->Arg(256)->Arg(1500)->Arg(4096)->Arg(65536);

void BM_IpChksum(benchmark::State& state) {
  auto bytes = buffer(size_t(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(Korva::ipChksum(bytes.data(), Korva::U32(bytes.size())));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_IpChksum)->Arg(1500)->Arg(65536);

void BM_Memcpy(benchmark::State& state) {
  auto from = buffer(size_t(state.range(0)));
  std::vector<Korva::U8> to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Memcpy)->Arg(1500)->Arg(65536);

}  // namespace
