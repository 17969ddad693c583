// Attribute changes per second from a publisher to a mirror mounted in another process,
// against a bare loop that writes the same bytes over the same kind of socket (a Unix
// stream socket) and reads them in the other process: in 64 KiB writes (the transport's
// ceiling), and in one write per change (what sending each change as it happens costs).
//
// Each iteration makes `kChanges` changes of a ProxyArp::VirtualMacStatus (1000 interfaces,
// each change a new MAC), in turns of 1000 changes with a turn of the event loop between
// them, as an agent does; it ends when the other process says it has applied (or, for the
// baselines, read) them all. Reported: the three rates, from each one's fastest iteration,
// ratio = ours / 64 KiB writes and ratio_per_change = ours / one write per change.

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
#include <string>
#include <thread>

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

void waitAck(int fd) {
  char ack;
  if (read(fd, &ack, 1) != 1) std::abort();
}

// Counts the mirror's changes and acknowledges each full iteration on `ack`.
class Counter : public Mox::AttrLogMount::Observer {
 public:
  explicit Counter(int ack) : ack_(ack) {}
  void onChange(const Mox::Entity&, Mox::U16, std::string_view) override {
    if (++count_ % kChanges == 0 && write(ack_, "!", 1) != 1) std::abort();
  }
  // The snapshot's entries do not count.
  void onSynced() override {
    count_ = 0;
    if (write(ack_, "s", 1) != 1) std::abort();
  }

 private:
  int ack_;
  size_t count_ = 0;
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

  // The baseline: the same bytes, in the same kind of socket, read on the other side.
  std::string bytes;
  Mox::AttrLogRecordWriter record(&bytes);
  for (size_t i = 0; i < kChanges; ++i) {
    Mox::AttrLogWriter& out = record.begin(Mox::AttrLogOp::set, Mox::kAttrLogRootHandle, 0);
    attrLogWrite(out, change(i).intfId());
    record.endKey();
    attrLogWrite(out, change(i));
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
      if (write(ack[1], "!", 1) != 1) return;
    }
  });

  const size_t recordSize = bytes.size() / kChanges;  // every record has the same size here
  auto best = Clock::duration::max(), bestBaseline = Clock::duration::max();
  auto bestPerChange = Clock::duration::max();
  size_t serial = kInterfaces;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (size_t done = 0; done < kChanges; done += kTurn) {
      for (size_t i = 0; i < kTurn; ++i) status->virtualMacIs(change(serial++));
      Mox::runOnce();
    }
    while (publisher->backlog() > 0) Mox::runOnce(0.001);
    waitAck(ack[0]);
    const auto t1 = Clock::now();
    for (size_t offset = 0; offset < bytes.size(); offset += kChunk) {
      const size_t size = std::min(kChunk, bytes.size() - offset);
      if (write(pair[0], bytes.data() + offset, size) != ssize_t(size)) std::abort();
    }
    waitAck(ack[0]);
    const auto t2 = Clock::now();
    for (size_t offset = 0; offset < bytes.size(); offset += recordSize) {
      if (write(pair[0], bytes.data() + offset, recordSize) != ssize_t(recordSize)) std::abort();
    }
    waitAck(ack[0]);
    const auto t3 = Clock::now();
    best = std::min(best, t1 - t0);
    bestBaseline = std::min(bestBaseline, t2 - t1);
    bestPerChange = std::min(bestPerChange, t3 - t2);
  }
  state.counters["ours_changes_per_s"] = rate(best);
  state.counters["bare_socket_changes_per_s"] = rate(bestBaseline);
  state.counters["bare_write_per_change_per_s"] = rate(bestPerChange);
  state.counters["ratio"] = rate(best) / rate(bestBaseline);
  state.counters["ratio_per_change"] = rate(best) / rate(bestPerChange);
  state.counters["bytes_per_change"] = static_cast<double>(bytes.size()) / kChanges;
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
