#pragma once
// What the TCP tests share: machines in throwaway namespaces, the kernel's TCP counters of a
// namespace, and peers that are not our code (Python run inside a namespace).

#include <Korva/SimpleTcpPduPam.h>
#include <Korva/SocketUtils.h>
#include <Korva/TcpClientServer.h>
#include <Mox/Activity.h>

#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "../BoundedRun.h"
#include "SocketTestUtil.h"

extern char** environ;

namespace TcpTest {

using Korva::AddressFamily;
using Korva::IpGenAddr;
using Korva::Port;
using Mox::Ptr;
using ConnectionStatus = Korva::TcpClientStatus::ConnectionStatus;

// A server machine with its configuration and status.
struct Server {
  Server(const Ptr<Pylon::TimerWheel>& wheel, const std::string& ns, const std::string& addr,
         Mox::U16 port)
      : config(Korva::tcpServerConfigFactory("server", IpGenAddr(addr), Port(port))),
        status(Korva::tcpServerStatusFactory("server")) {
    config->networkNamespaceIs(Korva::NamespaceName(ns));
    sm = Mox::make<Korva::TcpServerSm>(wheel, config, status);
  }
  Ptr<Korva::TcpServerConfig> config;
  Ptr<Korva::TcpServerStatus> status;
  Ptr<Korva::TcpServerSm> sm;
};

struct Client {
  Client(const Ptr<Pylon::TimerWheel>& wheel, const std::string& ns, const std::string& addr,
         Mox::U16 port)
      : config(Korva::tcpClientConfigFactory("client", IpGenAddr(addr), Port(port))),
        status(Korva::tcpClientStatusFactory("client")) {
    config->networkNamespaceIs(Korva::NamespaceName(ns));
    sm = Mox::make<Korva::TcpClientSm>(wheel, 1, config, status);
  }
  bool connected() const { return status->connectionStatus() == ConnectionStatus::connected; }
  Ptr<Korva::TcpClientConfig> config;
  Ptr<Korva::TcpClientStatus> status;
  Ptr<Korva::TcpClientSm> sm;
};

// Collects every PDU a Pam delivers, as an owner's reactor does.
struct PduCollector : Korva::TcpPduPam::Notifiee {
  explicit PduCollector(Korva::TcpPduPam* pam) { notifierIs(pam); }
  void onReadable() override {
    if (notifier()->readable()) pdus.push_back(notifier()->rxPkt()->stringValue());
  }
  std::vector<std::string> pdus;
};

// A PDU of `length` bytes (at least 20) with its length field set; the rest is `fill`.
inline std::string pdu(size_t length, char fill) {
  std::string bytes(length, fill);
  bytes[2] = char(length >> 8);
  bytes[3] = char(length & 0xff);
  return bytes;
}

inline Ptr<Korva::Pkt> packetOf(const std::string& bytes) {
  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

// A kernel TCP counter of the namespace ("TCPMD5Failure", "TCPMinTTLDrop").
inline long tcpExtCounter(const std::string& ns, const std::string& counter) {
  long value = -1;
  FILE* out = popen(("ip netns exec " + ns + " cat /proc/net/netstat").c_str(), "r");
  if (!out) return -1;
  char names[4096], values[4096];
  while (fgets(names, sizeof names, out) && fgets(values, sizeof values, out)) {
    if (std::string(names).rfind("TcpExt:", 0) != 0) continue;
    std::vector<std::string> keys, numbers;
    for (char* t = strtok(names, " \n"); t; t = strtok(nullptr, " \n")) keys.push_back(t);
    for (char* t = strtok(values, " \n"); t; t = strtok(nullptr, " \n")) numbers.push_back(t);
    for (size_t i = 0; i < keys.size() && i < numbers.size(); ++i) {
      if (keys[i] == counter) value = std::stol(numbers[i]);
    }
  }
  pclose(out);
  return value;
}

// A Python program run inside a namespace; killed (by its id) if it is still running when
// this goes.
class PythonPeer {
 public:
  PythonPeer(const std::string& ns, const std::string& program, std::vector<std::string> args) {
    std::vector<std::string> argv = {"ip", "netns", "exec", ns, "/usr/bin/python3", "-c", program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    if (posix_spawnp(&pid_, "ip", nullptr, nullptr, raw.data(), environ) != 0) pid_ = -1;
  }
  ~PythonPeer() {
    if (pid_ <= 0) return;
    if (!exited_) kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  bool started() const { return pid_ > 0; }
  // Runs the loop until the program has ended (its process descriptor turns readable), at
  // most 10 s; its exit status or -1.
  int finish() {
    const int pidFd = int(syscall(SYS_pidfd_open, pid_, 0));
    if (pidFd < 0) return -1;
    auto ended = Mox::make<Mox::FileDescriptor>("peer", pidFd);
    runUntilBounded([&] { return ended->readableCount() > 0; }, 10.0);
    int status = -1;
    exited_ = waitpid(pid_, &status, WNOHANG) == pid_;
    return exited_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
};

}  // namespace TcpTest

namespace TcpTest {

// Two throwaway namespaces joined by a veth pair: "left" (ktl, 10.78.0.1, fd78::1) and
// "right" (ktr, 10.78.0.2, fd78::2), both links running.
class VethPair {
 public:
  VethPair() {
    if (!left_.created() || !right_.created()) {
      skip_ = "needs CAP_SYS_ADMIN to create network namespaces";
    } else if (!left_.ip("link add ktl type veth peer name ktr netns " + right_.name())) {
      skip_ = "cannot create a veth pair";
    } else {
      ready_ = configure(left_, "ktl", "1") && configure(right_, "ktr", "2") &&
               SocketTest::runUntilLinkRunning(left_.name(), "ktl") &&
               SocketTest::runUntilLinkRunning(right_.name(), "ktr");
    }
  }
  // Why the pair cannot be had here (empty when it can).
  const std::string& skip() const { return skip_; }
  bool ready() const { return ready_; }
  const std::string& left() const { return left_.name(); }
  const std::string& right() const { return right_.name(); }
  static std::string address(bool v6, int host) {
    return (v6 ? "fd78::" : "10.78.0.") + std::to_string(host);
  }

 private:
  static bool configure(const SocketTest::ScopedNs& ns, const std::string& link,
                        const std::string& host) {
    return ns.ip("addr add 10.78.0." + host + "/24 dev " + link) &&
           ns.ip("addr add fd78::" + host + "/64 dev " + link + " nodad") &&
           ns.ip("link set " + link + " up") && ns.ip("link set lo up");
  }

  SocketTest::ScopedNs left_{"tcpl"};
  SocketTest::ScopedNs right_{"tcpr"};
  std::string skip_;
  bool ready_ = false;
};

// Runs the loop, waking at least every 20 ms, until `condition` holds or `seconds` (real)
// pass: for conditions no descriptor reports, such as a kernel counter.
inline bool pollUntil(const std::function<bool()>& condition, double seconds) {
  const double limit = Mox::monotonicNow() + seconds;
  while (!condition()) {
    if (Mox::monotonicNow() >= limit) return false;
    Mox::runOnce(0.02);
  }
  return true;
}

}  // namespace TcpTest
