#include <Korva/Netns.h>
#include <Korva/NetnsUtils.h>
#include <Mox/Netns.h>
#include <Mox/Trace.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "SocketTestUtil.h"

namespace {

using Korva::netNsAdd;
using Korva::netNsDelete;
using Korva::netNsInode;

Mox::U64 inodeOf(const char* path) {
  struct stat file;
  return stat(path, &file) == 0 ? file.st_ino : 0;
}

Mox::U64 threadNsInode() {
  return inodeOf("/proc/thread-self/ns/net");
}

// The namespace a socket lives in, as the kernel reports it.
Mox::U64 socketNsInode(int fd) {
  int nsFd = ioctl(fd, SIOCGSKNS);
  if (nsFd < 0) return 0;
  struct stat file;
  Mox::U64 inode = fstat(nsFd, &file) == 0 ? file.st_ino : 0;
  close(nsFd);
  return inode;
}

// A namespace made by netNsAdd (SocketTest::ScopedNs) for each test, traces on.
class NetnsUtils : public ::testing::Test {
 protected:
  void SetUp() override {
    ownInode_ = threadNsInode();
    ns_ = std::make_unique<SocketTest::ScopedNs>("nu");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    Mox::traceConfigIs("NetnsUtils/0-9");
  }
  void TearDown() override { Mox::traceConfigIs(""); }
  const std::string& name() const { return ns_->name(); }

  Mox::U64 ownInode_ = 0;
  std::unique_ptr<SocketTest::ScopedNs> ns_;
};

TEST_F(NetnsUtils, AddMakesANamedNamespaceThatIpNetnsUsesAndRefusesItsNameAgain) {
  EXPECT_EQ(threadNsInode(), ownInode_) << "the caller must be back in its own namespace";
  EXPECT_TRUE(Korva::netNsExists(name()));
  const Mox::U64 inode = netNsInode(name());
  EXPECT_NE(inode, ownInode_);
  // The loopback device of the new namespace is up, and `ip` sees the same namespace.
  const std::string command = "ip netns exec " + name() + " ip -o link show lo | grep -q UP";
  EXPECT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(netNsAdd(name()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(netNsInode(name()), inode);
}

TEST_F(NetnsUtils, AddEvenIfPresentReplacesTheNamespace) {
  const std::string& ns = name();
  const Mox::U64 first = netNsInode(ns);
  int oldSocket = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
  ASSERT_GE(oldSocket, 0);
  ASSERT_EQ(Korva::netNsAddEvenIfPresent(ns), 0);
  const Mox::U64 second = netNsInode(ns);
  EXPECT_NE(first, second);
  // Sockets made after the replacement live in the new namespace, not the cached old one.
  int newSocket = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
  ASSERT_GE(newSocket, 0);
  EXPECT_EQ(socketNsInode(oldSocket), first);
  EXPECT_EQ(socketNsInode(newSocket), second);
  close(oldSocket);
  close(newSocket);
}

// Every call names a missing namespace in its trace and fails with -1, errno kept.
TEST_F(NetnsUtils, AMissingNamespaceFailsEachCallWithItsTrace) {
  const char* missing = "korva-test-missing";
  Mox::TraceCapture capture;
  EXPECT_EQ(netNsDelete(missing), -1);
  EXPECT_TRUE(capture.contains("Tried to delete a ns that didn't exist: korva-test-missing"));
  EXPECT_FALSE(Korva::netNsExists(missing));
  EXPECT_TRUE(capture.contains("stat failed for /var/run/netns/korva-test-missing : "));
  EXPECT_EQ(Korva::setns_by_name(missing), -1);
  EXPECT_TRUE(capture.contains("Cannot setns to korva-test-missing : "));
  EXPECT_EQ(Korva::socketAt(AF_INET, SOCK_DGRAM, 0, missing), -1);
  EXPECT_EQ(errno, ENOENT);
  bool valid = true;
  EXPECT_EQ(Korva::validateNetNs(std::string(missing), &valid), -1);
  EXPECT_FALSE(valid);
  EXPECT_EQ(Korva::moveIntfNetNs("kvtNone", missing, name()), -1);
}

TEST_F(NetnsUtils, SocketAtOpensInTheNamedNamespaceWithoutMovingTheCaller) {
  for (int i = 0; i < 3; ++i) {
    int fd = Korva::socketAt(AF_INET6, SOCK_DGRAM, 0, name());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(socketNsInode(fd), netNsInode(name()));
    EXPECT_EQ(threadNsInode(), ownInode_);
    close(fd);
  }
  // The agent's own namespace, by its default name, needs no worker.
  const std::string agentNs = Korva::NamespaceName::defaultNamespace().value();
  EXPECT_EQ(agentNs, Korva::DEFAULT_NS);
  for (const std::string& own : {agentNs, std::string()}) {
    int plain = Korva::socket_at(AF_INET, SOCK_STREAM, 0, own);
    ASSERT_GE(plain, 0);
    EXPECT_EQ(socketNsInode(plain), ownInode_);
    close(plain);
  }
}

// Whether any thread of this process is inside the namespace with that inode.
bool anyThreadIn(Mox::U64 inode) {
  DIR* tasks = opendir("/proc/self/task");
  bool found = false;
  while (dirent* task = readdir(tasks)) {
    if (task->d_name[0] == '.') continue;
    const std::string path = std::string("/proc/self/task/") + task->d_name + "/ns/net";
    found |= inodeOf(path.c_str()) == inode;
  }
  closedir(tasks);
  return found;
}

TEST_F(NetnsUtils, DeleteLetsTheNamespaceGo) {
  const Mox::U64 inode = netNsInode(name());
  int fd = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, name());
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_TRUE(anyThreadIn(inode)) << "the socket worker lives there";
  ASSERT_EQ(netNsDelete(name()), 0);
  EXPECT_FALSE(anyThreadIn(inode)) << "no thread may keep a deleted namespace alive";
}

TEST_F(NetnsUtils, WorkersEndWhenOthersDeleteTheirNamespaces) {
  const char* missing = "korva-test-missing";
  Korva::socketAt(AF_INET, SOCK_DGRAM, 0, missing);  // ends what earlier tests left parked
  const size_t baseline = SocketTest::threadCount();
  struct Names : std::vector<std::string> {
    ~Names() {
      for (const std::string& ns : *this) {
        if (Korva::netNsExists(ns)) netNsDelete(ns);
      }
    }
  } spaces;
  for (int i = 0; i < 60; ++i) {
    const std::string& ns = spaces.emplace_back(name() + "-" + std::to_string(i));
    ASSERT_EQ(std::system(("ip netns add " + ns).c_str()), 0);
    int fd = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_LE(SocketTest::threadCount(), baseline + 8) << "parked workers are bounded";
  }
  for (const std::string& ns : spaces) {
    ASSERT_EQ(std::system(("ip netns del " + ns).c_str()), 0);
  }
  EXPECT_EQ(Korva::socketAt(AF_INET, SOCK_DGRAM, 0, missing), -1);
  EXPECT_EQ(SocketTest::threadCount(), baseline)
      << "one use ends the workers of deleted namespaces";
}

TEST_F(NetnsUtils, ValidateTellsEnterableFromNot) {
  bool valid = false;
  EXPECT_EQ(Korva::validateNetNs(name(), &valid), 0);
  EXPECT_TRUE(valid);
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  EXPECT_EQ(Korva::validateNetNs(pipeFds[0], &valid), 0);
  EXPECT_FALSE(valid);
  close(pipeFds[0]);
  close(pipeFds[1]);
  // A number far above any open descriptor: validateNetNs opens one of its own, which
  // would reuse a just-closed low number.
  const int closedFd = 1000;
  ASSERT_EQ(fcntl(closedFd, F_GETFD), -1);
  EXPECT_EQ(Korva::validateNetNs(closedFd, &valid), 0);
  EXPECT_FALSE(valid);
  EXPECT_EQ(threadNsInode(), ownInode_);
  std::thread visitor([&] {
    EXPECT_EQ(Korva::setNsByName(name()), 0);
    EXPECT_EQ(threadNsInode(), netNsInode(name()));
  });
  visitor.join();
}

// In a child of a death test: names what failed and ends the child when `ok` is false.
void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::_Exit(1);
}

// Runs `body` in a child process inside a private mount namespace with an empty /var/run of
// its own, so the machine's namespace directory never sees what the test mounts; the test
// passes when the child ends well. The alarm bounds the child.
void inPrivateMounts(const std::function<void()>& body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        alarm(10);
        require(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS)");
        require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");
        require(mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") == 0, "tmpfs on /var/run");
        body();
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// The propagation fields of the mount at `point` in this process's mount table (the last
// one there, which is the one on top).
std::string propagationOf(const std::string& point) {
  std::ifstream table("/proc/self/mountinfo");
  std::string fields;
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string id, parent, device, root, mountPoint, options;
    words >> id >> parent >> device >> root >> mountPoint >> options;
    if (mountPoint == point) std::getline(words, fields, '-');
  }
  return fields;
}

TEST_F(NetnsUtils, MountDefaultReplacesADefaultNameForAnotherNamespace) {
  inPrivateMounts([] {
    const Mox::U64 own = inodeOf("/proc/self/ns/net");
    require(netNsAdd(Korva::DEFAULT_NS) == 0, "name another namespace default");
    require(netNsInode(Korva::DEFAULT_NS) != own, "default names another namespace");
    require(Korva::mountDefaultNetNs() == 0, "mountDefaultNetNs");
    require(netNsInode(Korva::DEFAULT_NS) == own, "default names the agent's namespace");
    require(Korva::mountDefaultNetNs() == 0, "mountDefaultNetNs again");
    require(netNsInode(Korva::DEFAULT_NS) == own, "a second call keeps it");
  });
}

TEST_F(NetnsUtils, RemountMakesTheNamespaceDirectoryShared) {
  inPrivateMounts([] {
    require(Korva::mkNsRunDir() == 0, "mkNsRunDir");
    const std::string dir = std::filesystem::canonical(Mox::kNetnsRunDir);
    // Every mount is private now, even one of the machine's hidden under the tmpfs.
    require(propagationOf(dir).find("shared:") == std::string::npos, "not shared before");
    require(Korva::remountNsRunDir() == 0, "remountNsRunDir");
    require(propagationOf(dir).find("shared:") != std::string::npos,
            "the namespace directory is a shared mount");
  });
}

TEST_F(NetnsUtils, MoveIntfCarriesAVethEndAcross) {
  SocketTest::ScopedNs to("nu");
  ASSERT_TRUE(ns_->ip("link add kvtA type veth peer name kvtB"));
  ASSERT_EQ(Korva::move_intf_netns("kvtB", name(), to.name()), 0);
  EXPECT_TRUE(to.ip("link show kvtB"));
  EXPECT_FALSE(ns_->ip("link show kvtB"));
  EXPECT_EQ(Korva::moveIntfNetNs("kvtNone", name(), to.name()), -1);
  EXPECT_EQ(errno, ENODEV);
}

}  // namespace
