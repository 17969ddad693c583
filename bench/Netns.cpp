// Cost of opening a socket inside another named namespace (socketAt) against a plain
// socket() in the caller's own namespace. Needs the privilege to create a namespace.

#include <Korva/NetnsUtils.h>

#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

void BM_PlainSocket(benchmark::State& state) {
  for (auto _ : state) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    benchmark::DoNotOptimize(fd);
    close(fd);
  }
}
BENCHMARK(BM_PlainSocket);

void BM_SocketAtOtherNamespace(benchmark::State& state) {
  const std::string name = "korva-bench-" + std::to_string(getpid());
  if (Korva::netNsAdd(name) < 0) {
    state.SkipWithError("cannot create a namespace (needs CAP_SYS_ADMIN)");
    return;
  }
  for (auto _ : state) {
    int fd = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, name);
    benchmark::DoNotOptimize(fd);
    close(fd);
  }
  Korva::netNsDelete(name);
}
BENCHMARK(BM_SocketAtOtherNamespace)->UseRealTime();

}  // namespace
