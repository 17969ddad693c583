#pragma once
// Helpers for socket tests that run in throwaway network namespaces: a uniquely named
// namespace removed in every outcome, and a way to run test code on a thread that lives in
// it (sockets, devices and ioctls then belong to that namespace; the test's own thread
// never moves).

#include <Korva/NetnsUtils.h>
#include <Korva/PktSocket.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace SocketTest {

class ScopedNs {
 public:
  explicit ScopedNs(const char* tag)
      : name_(std::string("korva-") + tag + "-" + std::to_string(getpid()) + "-" +
              std::to_string(next_++)) {
    created_ = Korva::netNsAdd(name_) == 0;
  }
  ~ScopedNs() {
    if (created_) Korva::netNsDelete(name_);
  }
  ScopedNs(const ScopedNs&) = delete;
  ScopedNs& operator=(const ScopedNs&) = delete;

  bool created() const { return created_; }
  const std::string& name() const { return name_; }
  // Runs `command` inside the namespace (`ip netns exec`); true when it succeeded.
  bool exec(const std::string& command) const {
    return std::system(("ip netns exec " + name_ + " " + command + " >/dev/null 2>&1").c_str()) ==
           0;
  }
  // Runs `command` in the namespace through `ip -n`; true when it succeeded.
  bool ip(const std::string& command) const {
    return std::system(("ip -n " + name_ + " " + command + " >/dev/null 2>&1").c_str()) == 0;
  }

 private:
  static inline std::atomic<int> next_{0};
  std::string name_;
  bool created_ = false;
};

// The threads of this process. One is started and joined first: ThreadSanitizer starts a
// helper thread of its own with the process's first thread, which a baseline must include.
inline size_t threadCount() {
  std::thread([] {}).join();
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                       std::filesystem::directory_iterator());
}

// Runs `body` on a fresh thread that has entered the namespace, and rethrows what it threw.
// The thread has its own event loop; everything the body opens should also be closed by it.
inline void runInNs(const ScopedNs& ns, const std::function<void()>& body) {
  std::exception_ptr failure;
  std::thread worker([&] {
    try {
      if (Korva::setNsByName(ns.name()) != 0) {
        ADD_FAILURE() << "could not enter namespace " << ns.name();
        return;
      }
      Mox::ActivityManagerConfig::current();  // the thread's loop exists before the body counts
      body();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  worker.join();
  if (failure) std::rethrow_exception(failure);
}

// Two throwaway namespaces joined by a veth pair: "left" (kvl, 10.77.0.1, fd77::1) and
// "right" (kvr, 10.77.0.2, fd77::2).
class VethPairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    left_ = std::make_unique<ScopedNs>("vl");
    right_ = std::make_unique<ScopedNs>("vr");
    if (!left_->created() || !right_->created()) {
      GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    }
    if (!left_->ip("link add kvl type veth peer name kvr netns " + right_->name())) {
      GTEST_SKIP() << "cannot create a veth pair (ip link add type veth)";
    }
    ASSERT_TRUE(configure(*left_, "kvl", "1"));
    ASSERT_TRUE(configure(*right_, "kvr", "2"));
    runInNs(*left_, [&] { leftIndex_ = if_nametoindex("kvl"); });
    runInNs(*right_, [&] { rightIndex_ = if_nametoindex("kvr"); });
  }

  static bool configure(const ScopedNs& ns, const std::string& link, const std::string& host) {
    // nodad: the IPv6 address is usable at once, without waiting out duplicate detection.
    return ns.ip("addr add 10.77.0." + host + "/24 dev " + link) &&
           ns.ip("addr add fd77::" + host + "/64 dev " + link + " nodad") &&
           ns.ip("link set " + link + " up") && ns.ip("link set lo up");
  }

  const std::string& left() const { return left_->name(); }
  const std::string& right() const { return right_->name(); }

  std::unique_ptr<ScopedNs> left_;
  std::unique_ptr<ScopedNs> right_;
  unsigned leftIndex_ = 0;
  unsigned rightIndex_ = 0;
};

// One throwaway namespace, its loopback up, for the tests that need no peer.
class NamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ns_ = std::make_unique<ScopedNs>("ns");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    ASSERT_TRUE(ns_->ip("link set lo up"));
    Mox::ActivityManagerConfig::current();  // the loop's own descriptors exist before counting
  }
  std::unique_ptr<ScopedNs> ns_;
};

// A Python program run inside a namespace: a peer that is not our code. The script comes
// through the environment, so no shell quoting gets in its way. It should print "ready"
// once its socket is open, and bound every wait of its own with a timeout.
class PythonPeer {
 public:
  PythonPeer(const ScopedNs& ns, const std::string& script) {
    setenv("KORVA_PYTHON_PEER", script.c_str(), 1);
    pipe_ =
        popen(("ip netns exec " + ns.name() + " python3 -c \"$KORVA_PYTHON_PEER\"").c_str(), "r");
  }
  ~PythonPeer() {
    if (pipe_) pclose(pipe_);
  }
  PythonPeer(const PythonPeer&) = delete;
  PythonPeer& operator=(const PythonPeer&) = delete;

  // The next line it printed, without the newline; "" once it has ended.
  std::string line() {
    char buffer[4096];
    if (!pipe_ || !fgets(buffer, sizeof buffer, pipe_)) return "";
    std::string text(buffer);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }

 private:
  FILE* pipe_ = nullptr;
};

// Runs the loop until `link` in namespace `ns` is operationally up. The kernel reports link
// changes on a netlink socket that the loop watches, so nothing polls or sleeps.
inline bool runUntilLinkRunning(const std::string& ns, const std::string& link) {
  const int probe = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
  const int netlink = Korva::socketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, ns);
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK;
  if (probe < 0 || netlink < 0 ||
      bind(netlink, reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0) {
    return false;
  }
  auto messages = Mox::make<Mox::FileDescriptor>("links", netlink);
  struct Drain : Mox::FileDescriptor::Notifiee {
    void onReadableCount() override {
      char buffer[8192];
      while (recv(notifier()->descriptor(), buffer, sizeof buffer, 0) > 0) {
      }
    }
  } drain;
  drain.notifierIs(messages);
  const bool running = Mox::runUntil(
      [&] {
        ifreq request{};
        std::strncpy(request.ifr_name, link.c_str(), IFNAMSIZ - 1);
        return ioctl(probe, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING);
      },
      5.0);
  close(probe);
  return running;
}

// A counter of the kernel's network statistics as the namespace sees them: `name` in
// section `section` ("Udp", "TcpExt") of /proc/net/snmp or /proc/net/netstat, which give
// a line of names and then a line of values; -1 if there is none.
inline long long kernelCounter(const ScopedNs& ns, const std::string& section,
                               const std::string& name) {
  long long value = -1;
  runInNs(ns, [&] {
    for (const char* file : {"/proc/thread-self/net/snmp", "/proc/thread-self/net/netstat"}) {
      std::ifstream table(file);
      for (std::string names, values; std::getline(table, names) && std::getline(table, values);) {
        if (!names.starts_with(section + ":")) continue;
        std::istringstream nameWords(names), valueWords(values);
        for (std::string word, number; nameWords >> word && valueWords >> number;) {
          if (word == name) value = std::stoll(number);
        }
      }
    }
  });
  return value;
}

// The number of descriptors this process has open.
inline int openDescriptorCount() {
  int count = 0;
  for (int fd = 0; fd < 4096; ++fd) count += fcntl(fd, F_GETFD) != -1;
  return count;
}

// Runs the thread's event loop until the socket's descriptor reports readable, or 5 s pass.
inline bool waitReadable(const Korva::PktSocket& sock) {
  const Mox::U32 before = sock.fileDescriptor()->readableCount();
  return Mox::runUntil([&] { return sock.fileDescriptor()->readableCount() > before; }, 5.0);
}

// Runs `step`, which must fail with `expected` as a Mox::ErrnoException naming `stepName`
// (none by default).
inline void expectErrnoFailure(const std::function<void()>& step, int expected,
                               const std::string& stepName = "") {
  try {
    step();
    ADD_FAILURE() << "no failure, expected errno " << expected;
  } catch (const Mox::ErrnoException& e) {
    EXPECT_EQ(e.errorNumber(), expected);
    EXPECT_EQ(e.what(), stepName);
    EXPECT_EQ(e.description(), (stepName.empty() ? "" : stepName + ": ") + std::strerror(expected));
  }
}

inline Mox::Ptr<Korva::Pkt> packetOf(const std::string& bytes) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

}  // namespace SocketTest
