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
using SocketTest::packetOf;
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

// Collects every PDU a Pam delivers, as an owner's reactor does. Every other PDU is held
// until the next has been read, and must not change meanwhile: the Pam reads again into
// the buffer of a PDU only once its owner has let it go.
struct PduCollector : Korva::TcpPduPam::Notifiee {
  explicit PduCollector(Korva::TcpPduPam* pam) { notifierIs(pam); }
  void onReadable() override {
    if (!notifier()->readable()) return;
    Ptr<Korva::Pkt> pkt = notifier()->rxPkt();
    if (held) {
      EXPECT_EQ(held->stringValue(), pdus.back()) << "a held PDU changed";
    }
    held = nullptr;
    pdus.push_back(pkt->stringValue());
    if (pdus.size() % 2) held = pkt;
  }
  std::vector<std::string> pdus;
  Ptr<Korva::Pkt> held;
};

// A PDU of `length` bytes (at least 20) with its length field set; the rest is `fill`.
inline std::string pdu(size_t length, char fill) {
  std::string bytes(length, fill);
  bytes[2] = char(length >> 8);
  bytes[3] = char(length & 0xff);
  return bytes;
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

// A Python program run inside a namespace with arguments, while this thread's loop keeps
// serving (SocketTest::PythonPeer is for peers that talk through their output instead);
// killed, by its id, if it is still running when this goes.
class SpawnedPython {
 public:
  SpawnedPython(const std::string& ns, const std::string& program, std::vector<std::string> args) {
    std::vector<std::string> argv = {"ip", "netns", "exec", ns, "/usr/bin/python3", "-c", program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    if (posix_spawnp(&pid_, "ip", nullptr, nullptr, raw.data(), environ) != 0) pid_ = -1;
  }
  ~SpawnedPython() {
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
