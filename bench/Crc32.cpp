// CRC-32 against zlib's crc32 over the same buffers (bytes per second).

#include <Korva/Crc32.h>

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <vector>

namespace {

std::vector<Korva::U8> buffer(size_t len) {
  std::vector<Korva::U8> bytes(len);
  for (size_t i = 0; i < len; ++i) bytes[i] = Korva::U8(i * 131 + 7);
  return bytes;
}

void BM_Crc32(benchmark::State& state) {
  auto bytes = buffer(size_t(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(Korva::Crc32::crc(bytes.data(), Korva::U32(bytes.size())));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(64)->Arg(1500)->Arg(65536);

void BM_ZlibCrc32(benchmark::State& state) {
  auto bytes = buffer(size_t(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc32(0, bytes.data(), uInt(bytes.size())));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ZlibCrc32)->Arg(64)->Arg(1500)->Arg(65536);

}  // namespace
