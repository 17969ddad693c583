// Closing descriptors: the deferred closer thread, and who closes what a Pam opens.
//
// Every socket a Pam opens is closed exactly once, whatever happens to the Pam. This binary
// interposes socket() and close() for that: they pass every call on, and while a test
// records they note each socket opened and closed (by inode, which the kernel never reuses
// while the socket lives) and every close of a descriptor that was not open.

#include <Korva/PamFdSm.h>
#include <Korva/UdpPam.h>
#include <Korva/deferClose.h>
#include <Mox/Exception.h>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SocketTestUtil.h"

namespace {

struct Ledger {
  // Read without the lock, so calls outside a recording never wait (nor deadlock a child
  // that a death test forked while another thread held the lock).
  std::atomic<bool> recording{false};
  std::mutex mutex;
  std::multiset<ino_t> opened;
  std::multiset<ino_t> closed;
  int badCloses = 0;
};

// Never destroyed: closes still run while the process exits.
Ledger& ledger = *new Ledger;

ino_t socketInode(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) {
  static const auto real = next<int (*)(int, int, int)>("socket");
  const int fd = real(domain, type, protocol);
  if (ledger.recording && fd >= 0) {
    std::lock_guard lock(ledger.mutex);
    ledger.opened.insert(socketInode(fd));
  }
  return fd;
}

extern "C" int close(int fd) {
  static const auto real = next<int (*)(int)>("close");
  if (ledger.recording) {
    std::lock_guard lock(ledger.mutex);
    if (fcntl(fd, F_GETFD) == -1) {
      ++ledger.badCloses;
    } else if (const ino_t inode = socketInode(fd)) {
      ledger.closed.insert(inode);
    }
  }
  return real(fd);
}

namespace {

using Korva::IpAddr;
using Korva::UdpPam;
using Mox::Ptr;

void recordingIs(bool on) {
  ledger.recording = on;
}

TEST(DescriptorOwnership, APamClosesEverySocketItOpensExactlyOnce) {
  SocketTest::ScopedNs home("own"), away("own");
  if (!home.created() || !away.created()) {
    GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
  }
  ASSERT_TRUE(home.ip("link set lo up") && away.ip("link set lo up"));
  recordingIs(true);
  Ptr<UdpPam> pam = Korva::udpPamFactory("owner");
  pam->netNsIs(Korva::NamespaceName(home.name()));
  pam->rxIpAddrIs(IpAddr(127, 0, 0, 1));
  pam->modeIs(UdpPam::Mode::server);                                     // opened
  pam->modeIs(UdpPam::Mode::client);                                     // mode change
  pam->netNsIs(Korva::NamespaceName(away.name()));                       // namespace change
  pam->rxIpAddrIs(IpAddr(192, 0, 2, 1));                                 // no such local address
  EXPECT_THROW(pam->modeIs(UdpPam::Mode::server), Mox::ErrnoException);  // set-up failure
  pam->rxIpAddrIs(IpAddr(127, 0, 0, 1));
  pam->netNsIs(Korva::NamespaceName(home.name()));
  ASSERT_TRUE(pam->fileDesc());
  // Someone still holding the reactor keeps neither the socket nor the Pam's reports.
  Ptr<Korva::PamFdSm> held = pam->fdSm();
  pam = nullptr;  // destruction
  recordingIs(false);
  EXPECT_TRUE(held->zombie());
  EXPECT_FALSE(held->fileDesc());
  std::lock_guard lock(ledger.mutex);
  EXPECT_EQ(ledger.opened.size(), 5u);
  EXPECT_EQ(ledger.opened.count(0), 0u) << "every descriptor socket() returned is a socket";
  EXPECT_EQ(ledger.closed, ledger.opened);
  EXPECT_EQ(ledger.badCloses, 0);
}

// --- the deferred closer ---

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

// Waits, bounded, for the closer thread to catch up with everything queued so far.
bool closerDrained() {
  const auto& stats = Korva::deferCloseStats();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (stats.closed.load() != stats.enqueued.load()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// A TCP client whose close() blocks: its send queue is full of data the peer never reads
// and it lingers. Closing the peer (which resets the connection) releases it.
struct LingeringConnection {
  int listener = -1, client = -1, server = -1;

  LingeringConnection() {
    listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    client = socket(AF_INET, SOCK_STREAM, 0);
    int small = 4096;
    setsockopt(client, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
    server = accept(listener, nullptr, nullptr);
    setsockopt(server, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    fcntl(client, F_SETFL, O_NONBLOCK);
    char chunk[4096] = {};
    while (write(client, chunk, sizeof chunk) > 0) {
    }
    linger lingerOn{1, 10};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &lingerOn, sizeof lingerOn);
  }
  void releaseClient() {
    close(server);  // unread data: the close sends a reset, which ends the linger
    server = -1;
  }
  ~LingeringConnection() {
    if (server >= 0) close(server);
    close(listener);
  }
};

TEST(DeferClose, ClosesOnTheCloserThread) {
  const auto& stats = Korva::deferCloseStats();
  const Mox::U32 inlineBefore = stats.closedInline.load();
  std::vector<int> fds;
  for (int i = 0; i < 100; ++i) {
    int pair[2];
    ASSERT_EQ(pipe(pair), 0);
    close(pair[1]);
    fds.push_back(pair[0]);
    EXPECT_EQ(Korva::deferClose(pair[0]), 0);
  }
  ASSERT_TRUE(closerDrained());
  for (int fd : fds) EXPECT_FALSE(isOpen(fd));
  EXPECT_EQ(stats.closedInline.load(), inlineBefore);
}

TEST(DeferClose, FullRingClosesInline) {
  const auto& stats = Korva::deferCloseStats();
  ASSERT_TRUE(closerDrained());
  LingeringConnection blocker;
  ASSERT_EQ(Korva::deferClose(blocker.client), 0);  // the closer is now stuck in close()

  // Bounded: a ring that never reports full fails here instead of looping.
  std::vector<int> queued;
  while (stats.enqueued.load() - stats.closed.load() < Korva::DeferCloseStats::ringSize) {
    ASSERT_LT(queued.size(), Korva::DeferCloseStats::ringSize) << "the ring never filled";
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    queued.push_back(fd);
    ASSERT_EQ(Korva::deferClose(fd), 0);
  }
  EXPECT_EQ(queued.size(), Korva::DeferCloseStats::ringSize - 1);
  for (int fd : queued) EXPECT_TRUE(isOpen(fd)) << "queued behind the blocked close";

  const Mox::U32 inlineBefore = stats.closedInline.load();
  int extra = open("/dev/null", O_RDONLY);
  EXPECT_EQ(Korva::deferClose(extra), 0);
  EXPECT_FALSE(isOpen(extra));
  EXPECT_EQ(stats.closedInline.load(), inlineBefore + 1);

  blocker.releaseClient();
  ASSERT_TRUE(closerDrained());
  for (int fd : queued) EXPECT_FALSE(isOpen(fd));
}

// The blocked-signal mask of every thread of this process, as the kernel reports it.
std::vector<unsigned long long> threadSignalMasks() {
  std::vector<unsigned long long> masks;
  DIR* tasks = opendir("/proc/self/task");
  while (dirent* task = readdir(tasks)) {
    if (task->d_name[0] == '.') continue;
    std::ifstream status(std::string("/proc/self/task/") + task->d_name + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("SigBlk:")) masks.push_back(std::stoull(line.substr(7), nullptr, 16));
    }
  }
  closedir(tasks);
  return masks;
}

TEST(DeferClose, CloserThreadTakesOnlyItsOwnFaults) {
  ASSERT_EQ(Korva::deferClose(open("/dev/null", O_RDONLY)), 0);
  ASSERT_TRUE(closerDrained());
  unsigned long long expected = ~0ull;
  // The kernel never blocks KILL and STOP; glibc keeps its own two (32 and 33) unblocked.
  for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGKILL, SIGSTOP, 32, 33}) {
    expected &= ~(1ull << (signal - 1));
  }
  const std::vector<unsigned long long> masks = threadSignalMasks();
  EXPECT_EQ(std::count(masks.begin(), masks.end(), expected), 1) << std::hex << expected;
}

}  // namespace
