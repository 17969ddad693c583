// Cost of one readable event through the event loop (a byte written to one of N pipes,
// one loop turn, a reactor reads it) against the same work done with a bare epoll_wait
// and read loop on the same kind of pipes. BM_Ratio interleaves both in one run and
// reports their CPU time per event and mox_ns / bare_ns as `ratio`; the goal is <= 1.25.

#include <Mox/Activity.h>
#include <Mox/Assert.h>
#include <Mox/FileDescriptor.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>
#include <vector>

// Counts heap allocations, to show that a turn of the loop makes none. The replacement
// pair is malloc/free on purpose, which GCC cannot tell from a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {
std::size_t allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

class Pipes {
 public:
  explicit Pipes(int count) : ends_(count) {
    for (auto& end : ends_) MOX_ASSERT(pipe2(end.data(), O_NONBLOCK | O_CLOEXEC) == 0);
  }
  ~Pipes() {
    for (auto& end : ends_) {
      if (end[0] >= 0) close(end[0]);
      close(end[1]);
    }
  }
  int size() const { return int(ends_.size()); }
  // Hands the read end over to its new owner, which will close it.
  int takeReadEnd(int i) { return std::exchange(ends_[i][0], -1); }
  int readEnd(int i) const { return ends_[i][0]; }
  void poke(int i) const { [[maybe_unused]] ssize_t written = write(ends_[i][1], "x", 1); }

 private:
  std::vector<std::array<int, 2>> ends_;
};

void drainByte(int fd) {
  char byte;
  [[maybe_unused]] ssize_t got = read(fd, &byte, 1);
}

// The baseline a user would write by hand.
class BareLoop {
 public:
  explicit BareLoop(int count) : pipes_(count), epollFd_(epoll_create1(EPOLL_CLOEXEC)) {
    for (int i = 0; i < count; ++i) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = pipes_.readEnd(i);
      MOX_ASSERT(epoll_ctl(epollFd_, EPOLL_CTL_ADD, pipes_.readEnd(i), &event) == 0);
    }
  }
  ~BareLoop() { close(epollFd_); }
  void event(int i) {
    pipes_.poke(i);
    const int count = epoll_wait(epollFd_, events_, 64, 0);
    for (int e = 0; e < count; ++e) drainByte(events_[e].data.fd);
  }

 private:
  Pipes pipes_;
  int epollFd_;
  epoll_event events_[64];
};

class MoxLoop {
 public:
  explicit MoxLoop(int count) : pipes_(count), manager_(Mox::ActivityManagerConfig::current()) {
    for (int i = 0; i < count; ++i) {
      readers_.push_back(
          std::make_unique<Reader>(Mox::make<Mox::FileDescriptor>("pipe", pipes_.takeReadEnd(i))));
    }
  }
  void event(int i) {
    pipes_.poke(i);
    manager_->runOnce();
  }

 private:
  struct Reader : Mox::FileDescriptor::Notifiee {
    explicit Reader(const Mox::Ptr<Mox::FileDescriptor>& fd) { notifierIs(fd); }
    void onReadableCount() override { drainByte(notifier()->descriptor()); }
  };
  Pipes pipes_;
  Mox::Ptr<Mox::ActivityManagerConfig> manager_;
  std::vector<std::unique_ptr<Reader>> readers_;
};

template <class Loop>
void BM_Loop(benchmark::State& state) {
  const int count = int(state.range(0));
  Loop loop(count);
  int next = 0;
  const std::size_t allocationsBefore = allocations;
  for (auto _ : state) {
    loop.event(next);
    if (++next == count) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs_per_event"] =
      double(allocations - allocationsBefore) / double(state.iterations());
}

// This thread's CPU time (user and system): on a shared, busy machine it leaves out the
// time spent waiting for a core, which would otherwise swamp the ratio.
double nanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

template <class Loop>
double timeBatch(Loop& loop, int count, int events) {
  const double start = nanoseconds();
  for (int e = 0; e < events; ++e) loop.event(e % count);
  return nanoseconds() - start;
}

// Both loops in turn, batch by batch, so machine noise hits them alike.
void BM_Ratio(benchmark::State& state) {
  const int count = int(state.range(0));
  constexpr int kBatch = 1000;
  BareLoop bare(count);
  MoxLoop mox(count);
  double bareTime = 0, moxTime = 0;
  for (auto _ : state) {
    bareTime += timeBatch(bare, count, kBatch);
    moxTime += timeBatch(mox, count, kBatch);
  }
  const double events = double(state.iterations()) * kBatch;
  state.counters["bare_ns"] = bareTime / events;
  state.counters["mox_ns"] = moxTime / events;
  state.counters["ratio"] = moxTime / bareTime;
}

BENCHMARK(BM_Loop<BareLoop>)->Name("BM_BareEpoll")->Arg(1)->Arg(64)->Arg(500);
BENCHMARK(BM_Loop<MoxLoop>)->Name("BM_MoxLoop")->Arg(1)->Arg(64)->Arg(500);
BENCHMARK(BM_Ratio)->Arg(1)->Arg(64)->Arg(500);

}  // namespace
