// EthAddr text parsing and printing against glibc's ether_aton_r / ether_ntoa_r, side by
// side over the same addresses (SideBySide.h).

#include <Korva/EthAddr.h>

#include <benchmark/benchmark.h>
#include <netinet/ether.h>

#include "SideBySide.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Random addresses, and their colon texts as agents usually see them; both parsers accept
// all of them.
const std::vector<Korva::EthAddr>& addrs() {
  static const std::vector<Korva::EthAddr> list = [] {
    std::mt19937_64 rng(42);
    std::vector<Korva::EthAddr> out;
    for (size_t i = 0; i < bench::batch; ++i) {
      Mox::U64 bits = rng();
      unsigned char bytes[6];
      for (int b = 0; b < 6; ++b) bytes[b] = static_cast<unsigned char>(bits >> (8 * b));
      out.push_back(Korva::EthAddr::fromBuffer(bytes));
    }
    return out;
  }();
  return list;
}

void EthAddrParse(benchmark::State& state) {
  std::vector<std::string> texts;
  for (const Korva::EthAddr& addr : addrs()) texts.push_back(addr.stringValue());
  bench::compareSideBySide(
      state, "glibc",
      [&](size_t i) {
        Korva::EthAddr addr;
        addr.stringValueIs(texts[i]);
        benchmark::DoNotOptimize(addr);
      },
      [&](size_t i) {
        ether_addr addr;
        benchmark::DoNotOptimize(ether_aton_r(texts[i].c_str(), &addr));
        benchmark::DoNotOptimize(addr);
      });
}
BENCHMARK(EthAddrParse);

void EthAddrPrint(benchmark::State& state) {
  const auto& list = addrs();
  bench::compareSideBySide(
      state, "glibc",
      [&](size_t i) {
        char text[17];
        benchmark::DoNotOptimize(list[i].toChars(text));
        benchmark::DoNotOptimize(text);
      },
      [&](size_t i) {
        ether_addr addr;
        list[i].copyToBuffer(addr.ether_addr_octet);
        char text[32];
        benchmark::DoNotOptimize(ether_ntoa_r(&addr, text));
        benchmark::DoNotOptimize(text);
      });
}
BENCHMARK(EthAddrPrint);

}  // namespace
