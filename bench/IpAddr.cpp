// Address text parsing and printing against glibc's inet_pton / inet_ntop, side by side
// (SideBySide.h). allocs_per_op counts heap allocations made by our side (global operator
// new is replaced below).

#include <Korva/Ip6Addr.h>
#include <Korva/IpAddr.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include "SideBySide.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace {
size_t allocations = 0;
}  // namespace

// Out of line, so the compiler does not pair malloc() and free() with new and delete.
[[gnu::noinline]] void* operator new(size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept {
  std::free(p);
}

namespace {

using bench::batch;
using Korva::Ip6Addr;
using Korva::IpAddr;

// Our side against glibc's, counting our allocations.
template <class Ours, class Baseline>
void compare(benchmark::State& state, Ours ours, Baseline baseline) {
  bench::compareSideBySide(state, "glibc", ours, baseline, &allocations);
}

std::vector<IpAddr> randomIpAddrs() {
  std::mt19937 rng(1);
  std::vector<IpAddr> addrs;
  for (size_t i = 0; i < batch; ++i) addrs.emplace_back(static_cast<Mox::U32>(rng()));
  return addrs;
}

// Typical IPv6 addresses: a /32 to /64 network part and a host part, some zero groups.
std::vector<Ip6Addr> randomIp6Addrs() {
  std::mt19937 rng(2);
  std::vector<Ip6Addr> addrs;
  for (size_t i = 0; i < batch; ++i) {
    Ip6Addr a;
    for (unsigned g = 0; g < 8; ++g) a.u16Is(g, rng() % 3 == 0 ? 0 : rng());
    addrs.push_back(a);
  }
  return addrs;
}

template <class Addr>
std::vector<std::string> texts(const std::vector<Addr>& addrs) {
  std::vector<std::string> out;
  for (const Addr& a : addrs) out.push_back(a.stringValue());
  return out;
}

void IpAddrParse(benchmark::State& state) {
  const std::vector<std::string> input = texts(randomIpAddrs());
  compare(
      state,
      [&](size_t i) {
        IpAddr a;
        a.stringValueIs(std::string_view(input[i]));
        benchmark::DoNotOptimize(a);
      },
      [&](size_t i) {
        in_addr a;
        benchmark::DoNotOptimize(inet_pton(AF_INET, input[i].c_str(), &a));
        benchmark::DoNotOptimize(a);
      });
}

void IpAddrPrint(benchmark::State& state) {
  const std::vector<IpAddr> input = randomIpAddrs();
  compare(
      state,
      [&](size_t i) {
        char text[IpAddr::maxTextSize];
        benchmark::DoNotOptimize(input[i].toChars(text));
        benchmark::DoNotOptimize(text);
      },
      [&](size_t i) {
        char text[INET_ADDRSTRLEN];
        const in_addr a{input[i].valueNbo()};
        benchmark::DoNotOptimize(inet_ntop(AF_INET, &a, text, sizeof text));
        benchmark::DoNotOptimize(text);
      });
}

// stringValue() builds a std::string; the baseline builds one from inet_ntop's buffer.
void IpAddrStringValue(benchmark::State& state) {
  const std::vector<IpAddr> input = randomIpAddrs();
  compare(
      state, [&](size_t i) { benchmark::DoNotOptimize(input[i].stringValue()); },
      [&](size_t i) {
        char text[INET_ADDRSTRLEN];
        const in_addr a{input[i].valueNbo()};
        benchmark::DoNotOptimize(std::string(inet_ntop(AF_INET, &a, text, sizeof text)));
      });
}

void Ip6AddrParse(benchmark::State& state) {
  const std::vector<std::string> input = texts(randomIp6Addrs());
  compare(
      state,
      [&](size_t i) {
        Ip6Addr a;
        a.stringValueIs(std::string_view(input[i]));
        benchmark::DoNotOptimize(a);
      },
      [&](size_t i) {
        in6_addr a;
        benchmark::DoNotOptimize(inet_pton(AF_INET6, input[i].c_str(), &a));
        benchmark::DoNotOptimize(a);
      });
}

void Ip6AddrPrint(benchmark::State& state) {
  const std::vector<Ip6Addr> input = randomIp6Addrs();
  compare(
      state,
      [&](size_t i) {
        char text[Ip6Addr::maxTextSize];
        benchmark::DoNotOptimize(input[i].toChars(text));
        benchmark::DoNotOptimize(text);
      },
      [&](size_t i) {
        char text[INET6_ADDRSTRLEN];
        in6_addr a;
        input[i].copyToBuffer(a.s6_addr);
        benchmark::DoNotOptimize(inet_ntop(AF_INET6, &a, text, sizeof text));
        benchmark::DoNotOptimize(text);
      });
}

void Ip6AddrStringValue(benchmark::State& state) {
  const std::vector<Ip6Addr> input = randomIp6Addrs();
  compare(
      state, [&](size_t i) { benchmark::DoNotOptimize(input[i].stringValue()); },
      [&](size_t i) {
        char text[INET6_ADDRSTRLEN];
        in6_addr a;
        input[i].copyToBuffer(a.s6_addr);
        benchmark::DoNotOptimize(std::string(inet_ntop(AF_INET6, &a, text, sizeof text)));
      });
}

BENCHMARK(IpAddrParse);
BENCHMARK(IpAddrPrint);
BENCHMARK(IpAddrStringValue);
BENCHMARK(Ip6AddrParse);
BENCHMARK(Ip6AddrPrint);
BENCHMARK(Ip6AddrStringValue);

}  // namespace
