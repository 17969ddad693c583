// EthAddr text parsing against glibc's ether_aton_r, over the same mix of addresses.

#include <Korva/EthAddr.h>

#include <benchmark/benchmark.h>
#include <netinet/ether.h>

#include <random>
#include <string>
#include <vector>

namespace {

// Colon texts as agents usually see them; both parsers accept all of them.
const std::vector<std::string>& texts() {
  static const std::vector<std::string> list = [] {
    std::mt19937_64 rng(42);
    std::vector<std::string> out;
    for (int i = 0; i < 1024; ++i) {
      Mox::U64 bits = rng();
      unsigned char bytes[6];
      for (int b = 0; b < 6; ++b) bytes[b] = static_cast<unsigned char>(bits >> (8 * b));
      out.push_back(Korva::EthAddr::fromBuffer(bytes).stringValue());
    }
    return out;
  }();
  return list;
}

void BM_EthAddrParse(benchmark::State& state) {
  const auto& list = texts();
  Korva::EthAddr addr;
  size_t i = 0;
  for (auto _ : state) {
    addr.stringValueIs(list[i++ & 1023]);
    benchmark::DoNotOptimize(addr);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EthAddrParse);

void BM_GlibcEtherAtonR(benchmark::State& state) {
  const auto& list = texts();
  ether_addr addr{};
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ether_aton_r(list[i++ & 1023].c_str(), &addr));
    benchmark::DoNotOptimize(addr);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GlibcEtherAtonR);

void BM_EthAddrPrint(benchmark::State& state) {
  Korva::EthAddr addr(0x0011, 0x2233, 0x4455);
  char text[17];
  for (auto _ : state) {
    benchmark::DoNotOptimize(addr.toChars(text));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_EthAddrPrint);

void BM_GlibcEtherNtoaR(benchmark::State& state) {
  ether_addr addr{{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
  char text[32];
  for (auto _ : state) {
    benchmark::DoNotOptimize(ether_ntoa_r(&addr, text));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_GlibcEtherNtoaR);

}  // namespace
