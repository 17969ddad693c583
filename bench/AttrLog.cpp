// Attribute changes per second from a publisher to a mirror mounted in another process,
// against a bare loop that writes the same bytes over the same kind of socket (a Unix
// stream socket) and reads them in the other process: in 64 KiB writes (the transport's
// ceiling), in one write per turn of changes (the sizes the publisher sends), and in one
// write per change (what sending each change as it happens costs).
//
// Each iteration makes `kChanges` changes of a ProxyArp::VirtualMacStatus (1000 interfaces,
// each change a new MAC, the values made beforehand as the baseline's bytes are), in turns
// of 1000 changes with a turn of the event loop between them, as an agent does; it ends when the
// other process says it has applied (or, for the baselines, read) them all. Reported: the rates,
// from each one's fastest iteration, ratio = ours / 64 KiB writes, ratio_per_turn and
// ratio_per_change likewise; and the CPU time each side of ours spends per change (its thread's, so
// another load on the machine does not count), which bounds the rate when both processes have a
// core of their own.
//
// Each side also applies every change to an entity of its own (the publisher's is the
// source, the mirror's the copy), which the bare loop never does. entity_update_ns is what
// that update alone costs (the same changes to an unwatched entity, in this process), and
// ceiling = bare / (bare + update) the ratio ours would reach if the log itself cost nothing.

#include <Arp/ProxyArp.mox.h>
#include <Mox/Activity.h>
#include <Mox/AttrLogMount.h>
#include <Mox/AttrLogPublisher.h>

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t kChanges = 200000;
constexpr size_t kTurn = 1000;
constexpr size_t kInterfaces = 1000;
constexpr size_t kChunk = 64u << 10;

using Clock = std::chrono::steady_clock;

ProxyArp::VirtualMac change(size_t serial) {
  return ProxyArp::VirtualMac(
      Korva::IntfId(serial % kInterfaces),
      Korva::EthAddr(0x0200, static_cast<Mox::U16>(serial >> 16), static_cast<Mox::U16>(serial)),
      true);
}

// The other process: runs `body` on a thread of its own (with an event loop of its own,
// not the copy of this process's) and then exits.
template <class Body>
pid_t otherProcess(Body body) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::thread(body).join();
    _exit(0);
  }
  return pid;
}

// This thread's CPU time.
Mox::U64 cpuNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return Mox::U64(now.tv_sec) * 1000000000u + Mox::U64(now.tv_nsec);
}

// An acknowledgement carries the CPU time the other side spent since its last one.
void sendAck(int fd, Mox::U64 cpu) {
  if (write(fd, &cpu, sizeof(cpu)) != sizeof(cpu)) std::abort();
}
Mox::U64 waitAck(int fd) {
  Mox::U64 cpu;
  if (read(fd, &cpu, sizeof(cpu)) != sizeof(cpu)) std::abort();
  return cpu;
}

// Counts the mirror's changes and acknowledges each full iteration on `ack`.
class Counter : public Mox::AttrLogMount::Observer {
 public:
  explicit Counter(int ack) : ack_(ack) {}
  void onChange(const Mox::Entity&, Mox::U16, std::string_view) override {
    if (++count_ % kChanges == 0) acknowledge();
  }
  // The snapshot's entries do not count.
  void onSynced() override {
    count_ = 0;
    acknowledge();
  }

 private:
  void acknowledge() {
    const Mox::U64 now = cpuNanoseconds();
    sendAck(ack_, now - cpu_);
    cpu_ = now;
  }

  int ack_;
  size_t count_ = 0;
  Mox::U64 cpu_ = cpuNanoseconds();
};

double rate(Clock::duration best) {
  return kChanges / std::chrono::duration<double>(best).count();
}

void AttrLogChanges(benchmark::State& state) {
  int ack[2];
  if (pipe(ack) != 0) std::abort();
  const std::string endpoint = "@korva-bench-attrlog-" + std::to_string(getpid());
  auto status = ProxyArp::virtualMacStatusFactory("bench");
  for (size_t i = 0; i < kInterfaces; ++i) status->virtualMacIs(change(i));
  auto publisher = Mox::make<Mox::AttrLogPublisher>(endpoint, status);
  const pid_t mirror = otherProcess([&] {
    auto mount = Mox::make<Mox::AttrLogMount>(endpoint, ProxyArp::virtualMacStatusFactory("bench"));
    Counter counter(ack[1]);
    mount->observerIs(&counter);
    Mox::ActivityManagerConfig::current()->run();
  });
  if (!Mox::runUntil([&] { return publisher->mountCount() == 1 && publisher->backlog() == 0; },
                     10.0)) {
    state.SkipWithError("the mirror did not connect");
  }
  waitAck(ack[0]);  // synced

  // Every iteration makes these changes: each differs from the entry it replaces.
  std::vector<ProxyArp::VirtualMac> changes;
  for (size_t i = 0; i < kChanges; ++i) changes.push_back(change(kInterfaces + i));

  // The baseline: the same bytes, in the same kind of socket, read on the other side.
  std::string bytes;
  Mox::AttrLogRecordWriter record(&bytes);
  for (const ProxyArp::VirtualMac& value : changes) {
    Mox::AttrLogWriter& out = record.begin(Mox::AttrLogOp::set, Mox::kAttrLogRootHandle, 0);
    attrLogWrite(out, value.intfId());
    record.endKey();
    attrLogWrite(out, value);
    record.end();
  }
  record.flush();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::abort();
  const pid_t reader = otherProcess([&] {
    close(pair[0]);  // so that the writer closing its end is the end of the stream
    std::string in(kChunk, '\0');
    for (;;) {
      size_t got = 0;
      while (got < bytes.size()) {
        const ssize_t n = read(pair[1], in.data(), kChunk);
        if (n <= 0) return;
        got += static_cast<size_t>(n);
      }
      sendAck(ack[1], 0);
    }
  });

  const size_t recordSize = bytes.size() / kChanges;  // every record has the same size here
  // One bare loop: the bytes in writes of `size`, until the reader has them all.
  auto bare = [&](size_t size) {
    const auto start = Clock::now();
    for (size_t offset = 0; offset < bytes.size(); offset += size) {
      const size_t part = std::min(size, bytes.size() - offset);
      if (write(pair[0], bytes.data() + offset, part) != ssize_t(part)) std::abort();
    }
    waitAck(ack[0]);
    return Clock::now() - start;
  };
  auto unwatched = ProxyArp::virtualMacStatusFactory("unwatched");
  for (size_t i = 0; i < kInterfaces; ++i) unwatched->virtualMacIs(change(i));
  auto update = [&] {
    const auto start = Clock::now();
    for (const ProxyArp::VirtualMac& value : changes) unwatched->virtualMacIs(value);
    return Clock::now() - start;
  };
  auto best = Clock::duration::max(), bestChunk = best, bestTurn = best, bestChange = best;
  auto bestUpdate = best;
  Mox::U64 publisherCpu = ~Mox::U64(0), mirrorCpu = ~Mox::U64(0);
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const Mox::U64 cpu0 = cpuNanoseconds();
    for (size_t done = 0; done < kChanges; done += kTurn) {
      for (size_t i = done; i < done + kTurn; ++i) status->virtualMacIs(changes[i]);
      Mox::runOnce();
    }
    while (publisher->backlog() > 0) Mox::runOnce(0.001);
    publisherCpu = std::min(publisherCpu, cpuNanoseconds() - cpu0);
    mirrorCpu = std::min(mirrorCpu, waitAck(ack[0]));
    best = std::min(best, Clock::now() - t0);
    bestChunk = std::min(bestChunk, bare(kChunk));
    bestTurn = std::min(bestTurn, bare(kTurn * recordSize));
    bestChange = std::min(bestChange, bare(recordSize));
    bestUpdate = std::min(bestUpdate, update());
  }
  const double bareNs = 1e9 / rate(bestChunk), updateNs = 1e9 / rate(bestUpdate);
  state.counters["ours_changes_per_s"] = rate(best);
  state.counters["bare_socket_changes_per_s"] = rate(bestChunk);
  state.counters["bare_write_per_turn_per_s"] = rate(bestTurn);
  state.counters["bare_write_per_change_per_s"] = rate(bestChange);
  state.counters["ratio"] = rate(best) / rate(bestChunk);
  state.counters["ratio_per_turn"] = rate(best) / rate(bestTurn);
  state.counters["ratio_per_change"] = rate(best) / rate(bestChange);
  state.counters["publisher_cpu_ns"] = double(publisherCpu) / kChanges;
  state.counters["mirror_cpu_ns"] = double(mirrorCpu) / kChanges;
  state.counters["bytes_per_change"] = static_cast<double>(bytes.size()) / kChanges;
  state.counters["entity_update_ns"] = updateNs;
  state.counters["ceiling"] = bareNs / (bareNs + updateNs);
  kill(mirror, SIGKILL);
  close(pair[0]);
  waitpid(mirror, nullptr, 0);
  waitpid(reader, nullptr, 0);
  close(pair[1]);
  close(ack[0]);
  close(ack[1]);
}

BENCHMARK(AttrLogChanges)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
