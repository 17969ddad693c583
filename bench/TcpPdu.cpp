// TCP over loopback, each figure against what a user would write by hand on the same event
// loop, measured side by side:
// - BM_PduReceive: 1 KiB PDUs through SimpleTcpPduPam against a bare non-blocking reader
//   that reads each PDU the same way (header, then body, into one buffer), and against a
//   reader that takes large chunks and splits them (the ceiling). `ratio` is bare time / our
//   time (goal >= 0.9), `ceiling_ratio` chunked time / our time.
// - BM_ConnectionSetUp: connections made and accepted through TcpClientSm + TcpServerSm
//   against a bare non-blocking connect / accept (goal >= 0.8).
// - BM_ThousandConnections: 1,000 connections accepted by one TcpServerSm, each read
//   through its own SimpleTcpPduPam: PDUs per second and resident memory per connection,
//   before and after PDUs have flowed.

#include <Korva/SimpleTcpPduPam.h>
#include <Korva/SocketUtils.h>
#include <Korva/TcpClientServer.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Korva::IpGenAddr;
using Korva::Port;
using Mox::Ptr;
// This thread's CPU time: on loopback the kernel's work for both ends runs in its system
// calls, and on a shared machine CPU time does not count the turns other processes take.
struct Clock {
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<Clock, duration>;
  static time_point now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return time_point(duration(now.tv_sec * 1'000'000'000LL + now.tv_nsec));
  }
};

constexpr size_t kPduBytes = 1024;
constexpr size_t kPdusPerWrite = 32;
constexpr size_t kHeader = 20;

std::string pduStream(size_t count) {
  std::string pdu(kPduBytes, 'p');
  pdu[2] = char(kPduBytes >> 8);
  pdu[3] = char(kPduBytes & 0xff);
  std::string stream;
  for (size_t i = 0; i < count; ++i) stream += pdu;
  return stream;
}

void bigBuffers(int fd) {
  Korva::setSocketOptionInteger(fd, SOL_SOCKET, SO_SNDBUF, 1 << 20, false);
  Korva::setSocketOptionInteger(fd, SOL_SOCKET, SO_RCVBUF, 1 << 20, false);
}

// A machine pair on loopback: each connect() yields a client socket and its accepted twin.
class Loopback {
 public:
  explicit Loopback(Mox::U16 port) {
    auto config = Korva::tcpServerConfigFactory("bench", IpGenAddr("127.0.0.1"), Port(port));
    status_ = Korva::tcpServerStatusFactory("bench");
    server_ = Mox::make<Korva::TcpServerSm>(wheel_, config, status_);
    server_->backlogIs(1024);
    MOX_ASSERT(server_->startListener());
    port_ = port;
  }
  // A blocking client socket and the accepted end (watched by nobody yet).
  std::pair<int, Ptr<Korva::TcpFd>> connect() {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    bigBuffers(client);
    MOX_ASSERT(Korva::socketConnect(client, IpGenAddr("127.0.0.1"), port_) == 0);
    Mox::runUntil([&] { return status_->connSocketSize() > 0; }, 5.0);
    Ptr<Korva::TcpFd> accepted = status_->getConnSocket().fd();
    bigBuffers(accepted->descriptor());
    return {client, accepted};
  }
  const Ptr<Korva::TcpServerStatus>& status() const { return status_; }
  const Ptr<Pylon::TimerWheel>& wheel() const { return wheel_; }
  Mox::U16 port() const { return port_; }

 private:
  Ptr<Pylon::TimerWheel> wheel_ = Mox::make<Pylon::TimerWheel>("bench");
  Ptr<Korva::TcpServerStatus> status_;
  Ptr<Korva::TcpServerSm> server_;
  Mox::U16 port_ = 0;
};

// Counts the PDUs a Pam delivers, as an owner's reactor takes them.
struct PduCounter : Korva::TcpPduPam::Notifiee {
  explicit PduCounter(Korva::TcpPduPam* pam, size_t* count) : count(count) { notifierIs(pam); }
  void onReadable() override {
    if (notifier()->readable() && notifier()->rxPkt()) ++*count;
  }
  size_t* count;
};

// The bare readers: watched by the same loop, reading until the socket is empty.
struct BareReader : Mox::FileDescriptor::Notifiee {
  BareReader(int fd, bool chunked) : chunked(chunked) {
    watched = Mox::make<Mox::FileDescriptor>("bare", fd);
    notifierIs(watched);
  }
  void onReadableCount() override { chunked ? readChunks() : readPdus(); }
  // Header, then the body, into one buffer per PDU.
  void readPdus() {
    const int fd = watched->descriptor();
    for (;;) {
      if (have < kHeader) {
        const ssize_t n = recv(fd, pdu + have, kHeader - have, MSG_DONTWAIT);
        if (n <= 0) return;
        have += size_t(n);
        continue;
      }
      const size_t length = size_t(Mox::U8(pdu[2])) << 8 | Mox::U8(pdu[3]);
      const ssize_t n = recv(fd, pdu + have, length - have, MSG_DONTWAIT);
      if (n <= 0) return;
      have += size_t(n);
      if (have == length) {
        ++count;
        have = 0;
      }
    }
  }
  // Large reads, split into PDUs where they lie.
  void readChunks() {
    const int fd = watched->descriptor();
    for (;;) {
      const ssize_t n = recv(fd, chunk + have, sizeof chunk - have, MSG_DONTWAIT);
      if (n <= 0) return;
      have += size_t(n);
      size_t at = 0;
      while (have - at >= kHeader) {
        const size_t length = size_t(Mox::U8(chunk[at + 2])) << 8 | Mox::U8(chunk[at + 3]);
        if (have - at < length) break;
        ++count;
        at += length;
      }
      std::memmove(chunk, chunk + at, have - at);
      have -= at;
    }
  }
  Ptr<Mox::FileDescriptor> watched;
  bool chunked;
  size_t count = 0;
  size_t have = 0;
  char pdu[9600];
  char chunk[65536];
};

void BM_PduReceive(benchmark::State& state) {
  Loopback loopback(7800);
  const std::string stream = pduStream(kPdusPerWrite);
  auto [ourWriter, ourFd] = loopback.connect();
  auto pam = Korva::simpleTcpPduPamFactory(ourFd);
  size_t ourCount = 0;
  PduCounter ours(pam.get(), &ourCount);
  pam->enabledIs(true);
  auto [bareWriter, bareFd] = loopback.connect();
  BareReader bare(dup(bareFd->descriptor()), false);
  auto [chunkWriter, chunkFd] = loopback.connect();
  BareReader chunked(dup(chunkFd->descriptor()), true);

  // One write of 32 PDUs, then the loop until all of them have been read.
  const auto round = [&](int writer, const size_t& count) {
    const size_t target = count + kPdusPerWrite;
    MOX_ASSERT(send(writer, stream.data(), stream.size(), 0) == ssize_t(stream.size()));
    while (count < target) Mox::runOnce(1.0);
  };
  Clock::duration best[3] = {Clock::duration::max(), Clock::duration::max(),
                             Clock::duration::max()};
  constexpr int kRounds = 64;
  int first = 0;
  for (auto _ : state) {
    const std::pair<int, const size_t*> sides[3] = {
        {ourWriter, &ourCount}, {bareWriter, &bare.count}, {chunkWriter, &chunked.count}};
    // Each side goes first in turn: none gains from what the one before left in the caches.
    first = (first + 1) % 3;
    for (int turn = 0; turn < 3; ++turn) {
      const int side = (first + turn) % 3;
      const auto start = Clock::now();
      for (int r = 0; r < kRounds; ++r) round(sides[side].first, *sides[side].second);
      best[side] = std::min(best[side], Clock::now() - start);
    }
  }
  const auto perPdu = [&](Clock::duration d) {
    return std::chrono::duration<double, std::nano>(d).count() / (kRounds * kPdusPerWrite);
  };
  state.counters["ours_ns"] = perPdu(best[0]);
  state.counters["bare_ns"] = perPdu(best[1]);
  state.counters["chunked_ns"] = perPdu(best[2]);
  state.counters["ratio"] = perPdu(best[1]) / perPdu(best[0]);
  state.counters["ceiling_ratio"] = perPdu(best[2]) / perPdu(best[0]);
  for (int fd : {ourWriter, bareWriter, chunkWriter}) close(fd);
}
BENCHMARK(BM_PduReceive)->Iterations(20)->Unit(benchmark::kMillisecond);

// Closes without TIME_WAIT, so many rounds do not run out of ports.
void closeAbortively(int fd) {
  linger abort{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close(fd);
}

void BM_ConnectionSetUp(benchmark::State& state) {
  Loopback loopback(7801);
  auto config = Korva::tcpClientConfigFactory("bench", IpGenAddr("127.0.0.1"), Port(7801));
  auto status = Korva::tcpClientStatusFactory("bench");
  auto client = Mox::make<Korva::TcpClientSm>(loopback.wheel(), 1, config, status);
  const auto ours = [&] {
    client->startConnection();
    Mox::runUntil(
        [&] {
          return status->connectionStatus() ==
                     Korva::TcpClientStatus::ConnectionStatus::connected &&
                 loopback.status()->connSocketSize() > 0;
        },
        5.0);
    Ptr<Korva::TcpFd> accepted = loopback.status()->getConnSocket().fd();
    closeAbortively(accepted->descriptor());
    accepted->descriptorIs(-1);
    Ptr<Korva::TcpFd> mine = status->connSocket().fd();
    client->stopConnection();
    closeAbortively(mine->descriptor());
    mine->descriptorIs(-1);
  };

  // The bare side: its own listener, both ends watched by the same loop.
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  Korva::setSocketOptionInteger(listener, SOL_SOCKET, SO_REUSEADDR, 1, false);
  MOX_ASSERT(Korva::socketBind(listener, IpGenAddr("127.0.0.1"), 7802) == 0);
  listen(listener, 1024);
  auto listening = Mox::make<Mox::FileDescriptor>("listener", listener);
  struct Acceptor : Mox::FileDescriptor::Notifiee {
    void onReadableCount() override {
      const int fd = accept4(notifier()->descriptor(), nullptr, nullptr, SOCK_NONBLOCK);
      if (fd < 0) return;
      ++accepted;
      last = fd;
    }
    size_t accepted = 0;
    int last = -1;
  } acceptor;
  acceptor.notifierIs(listening);
  struct Connector : Mox::FileDescriptor::Notifiee {
    void onWritableCount() override {
      int error = 0;
      Korva::getSocketOptionInteger(notifier()->descriptor(), SOL_SOCKET, SO_ERROR, &error);
      connected = error == 0;
      notifier()->notifyOnWritableIs(false);
    }
    bool connected = false;
  };
  const auto bare = [&] {
    const size_t before = acceptor.accepted;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    Korva::socketConnect(fd, IpGenAddr("127.0.0.1"), 7802);
    auto watched = Mox::make<Mox::FileDescriptor>("connect", fd);
    watched->notifyOnReadableIs(false);
    watched->notifyOnWritableIs(true);
    Connector connector;
    connector.notifierIs(watched);
    Mox::runUntil([&] { return connector.connected && acceptor.accepted > before; }, 5.0);
    connector.notifierIs(nullptr);
    // Both ends close once both have seen the connection, as the machines' ends do.
    closeAbortively(acceptor.last);
    closeAbortively(watched->release());
  };

  constexpr int kConnections = 256;
  Clock::duration best = Clock::duration::max(), bestBare = Clock::duration::max();
  for (auto _ : state) {
    auto start = Clock::now();
    for (int i = 0; i < kConnections; ++i) ours();
    best = std::min(best, Clock::now() - start);
    start = Clock::now();
    for (int i = 0; i < kConnections; ++i) bare();
    bestBare = std::min(bestBare, Clock::now() - start);
  }
  const auto perConnection = [](Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count() / kConnections;
  };
  state.counters["ours_us"] = perConnection(best);
  state.counters["bare_us"] = perConnection(bestBare);
  state.counters["ratio"] = perConnection(bestBare) / perConnection(best);
}
BENCHMARK(BM_ConnectionSetUp)->Iterations(5)->Unit(benchmark::kMillisecond);

long residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

void BM_ThousandConnections(benchmark::State& state) {
  constexpr size_t kConnections = 1000;
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2 * kConnections + 64) {
    state.SkipWithError("needs 2,100 descriptors");
    return;
  }
  Loopback loopback(7803);
  const std::string pdu = pduStream(1);
  std::vector<int> writers;
  std::vector<Ptr<Korva::SimpleTcpPduPam>> pams;
  std::vector<std::unique_ptr<PduCounter>> counters;
  size_t total = 0;
  const long before = residentBytes();
  for (size_t i = 0; i < kConnections; ++i) {
    auto [writer, accepted] = loopback.connect();
    writers.push_back(writer);
    pams.push_back(Korva::simpleTcpPduPamFactory(accepted));
    counters.push_back(std::make_unique<PduCounter>(pams.back().get(), &total));
    pams.back()->enabledIs(true);
  }
  const long grown = residentBytes() - before;
  size_t received = 0;
  double seconds = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (int writer : writers) {
      MOX_ASSERT(send(writer, pdu.data(), pdu.size(), 0) == ssize_t(pdu.size()));
    }
    received += kConnections;
    while (total < received) Mox::runOnce(1.0);
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  state.counters["pdus_per_s"] = double(received) / seconds;
  state.counters["rss_bytes_per_conn"] = double(grown) / kConnections;
  // Once PDUs have flowed, each connection also holds the buffer its next PDU is read into.
  state.counters["rss_bytes_per_conn_after_pdus"] = double(residentBytes() - before) / kConnections;
  for (int writer : writers) close(writer);
}
BENCHMARK(BM_ThousandConnections)->Iterations(50)->Unit(benchmark::kMillisecond);

}  // namespace
