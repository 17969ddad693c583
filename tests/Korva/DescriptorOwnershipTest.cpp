// Every socket a Pam opens is closed exactly once, whatever happens to the Pam. This binary
// interposes socket() and close() for that: they pass every call on, and while a test
// records they note each socket opened and closed (by inode, which the kernel never reuses
// while the socket lives) and every close of a descriptor that was not open.

#include <Korva/PamFdSm.h>
#include <Korva/UdpPam.h>
#include <Mox/Exception.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>

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

}  // namespace
