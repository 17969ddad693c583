// TCP: the client and server machines (exact back-off in virtual time, real connections
// across a veth pair, TCP-MD5 and GTSM as the kernel applies them) and the PDU Pams against
// peers that are not our code.
#include <Korva/SimpleTcpPduPam.h>
#include <Korva/SocketUtils.h>
#include <Korva/TcpClientServer.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../BoundedRun.h"
#include "SocketTestUtil.h"
#include "ValueTestUtil.h"

extern char** environ;

namespace {

using ConnectionStatus = Korva::TcpClientStatus::ConnectionStatus;
using Korva::AddressFamily;
using Korva::IpGenAddr;
using Korva::IpGenAddrWithMask;
using Korva::Port;
using Korva::SimpleTcpPduPam;
using Korva::TcpConnSocket;
using Korva::TcpPduPam;
using Korva::TcpSocketOptions;
using Mox::Ptr;
using SocketTest::packetOf;

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
std::string pdu(size_t length, char fill) {
  std::string bytes(length, fill);
  bytes[2] = char(length >> 8);
  bytes[3] = char(length & 0xff);
  return bytes;
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

// Runs the loop, waking at least every 20 ms, until `condition` holds or `seconds` (real)
// pass: for conditions no descriptor reports, such as a kernel counter.
bool pollUntil(const std::function<bool()>& condition, double seconds) {
  const double limit = Mox::monotonicNow() + seconds;
  while (!condition()) {
    if (Mox::monotonicNow() >= limit) return false;
    Mox::runOnce(0.02);
  }
  return true;
}

// A machine that implements none of the hooks: each is the base's assertion.
struct HooklessSm : Korva::TcpSmBase {
  HooklessSm(const Ptr<Pylon::TimerWheel>& wheel, Korva::TcpConfigBase* config)
      : TcpSmBase(wheel, config) {}
  AddressFamily af() const override { return AddressFamily::ipv4; }
  using TcpSmBase::handleInitialized;
  using TcpSmBase::handleRetry;
  using TcpSmBase::handleTimeout;
};

struct ExposedClientSm : Korva::TcpClientSm {
  using TcpClientSm::restartRetryTimer;
  using TcpClientSm::TcpClientSm;
};

// The generated socket options refuse bits they do not have; each contract violation
// aborts with its condition.
TEST(TcpDeathTest, ContractViolationsAbortWithTheirConditions) {
  EXPECT_EQ(KorvaTest::failureText([] { TcpSocketOptions(0x10); }),
            "TcpSocketOptions::value > 0xf not allowed");
  EXPECT_DEATH(Korva::setSockOptTxTtl(AddressFamily::ipunknown, 0, true, Korva::IpTtl(1)),
               "0 && \"Unknown af\"");
  EXPECT_DEATH(
      Korva::setSockMd5AuthOption(0, IpGenAddrWithMask("10.0.0.1/32"), std::string(80, 'k')),
      "key.bytes\\(\\) < 80");
  auto wheel = Mox::make<Pylon::TimerWheel>("tcp");
  Client client(wheel, "", "127.0.0.1", 1);
  client.config->optionsIs(TcpSocketOptions(0x8));
  client.config->md5AuthIs(IpGenAddrWithMask("127.0.0.1/32"), "");
  EXPECT_DEATH(client.sm->applySocketOptions(socket(AF_INET, SOCK_STREAM, 0)),
               "\"\" != md5AuthOptionKey");

  HooklessSm hookless(wheel, client.config.get());
  EXPECT_DEATH(hookless.handleRetry(), "0 && \"Need to implement handleRetry in derived class\"");
  EXPECT_DEATH(hookless.handleTimeout(),
               "0 && \"Need to implement handleTimeout in derived class\"");
  EXPECT_DEATH(hookless.handleInitialized(),
               "0 && \"Need to implement handleInitialized in derived class\"");
  EXPECT_DEATH(hookless.formatDerivedType(), "false && \"must be implemented by derived type\"");
  // Only a failed or a connecting client has an interval to wait.
  auto exposed = Mox::make<ExposedClientSm>(wheel, 2, client.config, client.status);
  client.status->connectionStatusIs(ConnectionStatus::connected);
  EXPECT_DEATH(exposed->restartRetryTimer(),
               "tcpClientStatus\\(\\)->connectionStatus\\(\\) == "
               "TcpClientStatus::ConnectionStatus::connecting_");
  EXPECT_DEATH(Korva::simpleTcpPduPamFactory(Korva::tcpFdFactory("none"))->getPduSize(), "\"pkt\"");
}

// Machines in one throwaway namespace, on virtual time: every interval is exact.
class TcpVirtualTimeTest : public SocketTest::NamespaceTest {
 protected:
  // A client of a port nobody listens on: every attempt is refused at once.
  std::unique_ptr<Client> refusedClient(Mox::U32 backoffRetries) {
    auto client = std::make_unique<Client>(wheel_, ns_->name(), "127.0.0.1", 7300);
    client->config->exponentialBackoffRetriesIs(backoffRetries);
    return client;
  }

  Mox::VirtualTime time_;
  Ptr<Pylon::TimerWheel> wheel_ = Mox::make<Pylon::TimerWheel>("tcp");
};

// Records when each attempt failed and why.
struct Failures : Korva::TcpClientStatus::Notifiee {
  explicit Failures(Korva::TcpClientStatus* status) { notifierIs(status); }
  void onConnectionErrorCount() override {
    times.push_back(Mox::now());
    reasons.push_back(notifier()->reason());
  }
  // The gaps between failures, in seconds.
  std::vector<double> gaps() const {
    std::vector<double> result;
    for (size_t i = 1; i < times.size(); ++i) result.push_back(times[i] - times[i - 1]);
    return result;
  }
  std::vector<double> times;
  std::vector<std::string> reasons;
};

TEST_F(TcpVirtualTimeTest, RefusedConnectsBackOffInASawTooth) {
  const struct {
    Mox::U32 backoffRetries;
    std::vector<double> gaps;
  } cases[] = {{3, {1, 2, 4, 1, 2, 4}}, {0, {1, 1, 1, 1, 1, 1}}, {2, {1, 2, 1, 2, 1, 2}}};
  for (const auto& c : cases) {
    auto client = refusedClient(c.backoffRetries);
    Failures failures(client->status.get());
    client->sm->startConnection();
    ASSERT_TRUE(runUntilBounded([&] { return failures.times.size() == 7; }, 60.0));
    EXPECT_EQ(failures.gaps(), c.gaps) << "back-off " << c.backoffRetries;
    EXPECT_EQ(failures.reasons, std::vector<std::string>(7, "Connect (Connection refused)"));
    EXPECT_EQ(client->status->connectionStatus(), ConnectionStatus::failed);
    EXPECT_EQ(client->status->retryTimerNext(), Mox::now() + 1) << "6 retries: back to the base";
    EXPECT_EQ(client->status->connectionAttemptCount(), 7u);
    EXPECT_EQ(client->sm->retryTimes(), 6u);
  }
}

TEST_F(TcpVirtualTimeTest, TheOverallTimeoutRunsFromTheFirstAttemptAndEndsRetrying) {
  auto client = refusedClient(3);
  client->config->timeoutIs(5);
  Failures failures(client->status.get());
  const double start = Mox::now();
  client->sm->startConnection();
  ASSERT_TRUE(runUntilBounded(
      [&] { return client->status->connectionStatus() == ConnectionStatus::timedout; }, 60.0));
  EXPECT_EQ(Mox::now(), start + 5);
  EXPECT_EQ(failures.times, (std::vector<double>{start, start + 1, start + 3}));
  EXPECT_EQ(client->sm->retryTimerExpireTime(), Mox::kNever);
  EXPECT_FALSE(client->sm->fd());
  runUntilBounded([] { return false; }, 100.0);
  EXPECT_EQ(client->status->connectionAttemptCount(), 3u) << "no retry after the timeout";
}

TEST_F(TcpVirtualTimeTest, AConnectStillInProgressIsRetriedAfterTheKernelTimeout) {
  // A link whose peer is down swallows the SYNs: the connect neither succeeds nor fails.
  ASSERT_TRUE(ns_->ip("link add kv0 type veth peer name kv1") &&
              ns_->ip("addr add 10.79.0.1/24 dev kv0") && ns_->ip("link set kv0 up") &&
              ns_->ip("neigh add 10.79.0.2 lladdr 02:00:00:00:00:02 dev kv0 nud permanent"));
  Client client(wheel_, ns_->name(), "10.79.0.2", 179);
  const double start = Mox::now();
  ASSERT_TRUE(client.sm->startConnection());
  EXPECT_EQ(client.status->connectionStatus(), ConnectionStatus::connecting);
  EXPECT_EQ(client.status->retryTimerNext(), start + 20);
  EXPECT_EQ(client.status->retryTimerInterval(), 20u);
  ASSERT_TRUE(runUntilBounded([&] { return client.status->connectionAttemptCount() == 2; }, 60.0));
  EXPECT_EQ(Mox::now(), start + 20);
  EXPECT_EQ(client.status->connectionStatus(), ConnectionStatus::connecting);
  EXPECT_EQ(client.status->retryTimerNext(), start + 40);
  EXPECT_EQ(client.status->connectionErrorCount(), 0u);
}

TEST_F(TcpVirtualTimeTest, AServerRetriesAFailedBindWithThePlainInterval) {
  Server noPort(wheel_, ns_->name(), "127.0.0.1", 0);
  EXPECT_FALSE(noPort.sm->startListener());
  EXPECT_EQ(noPort.status->reason(), "Listening port is 0");
  EXPECT_FALSE(noPort.sm->fd());
  EXPECT_EQ(noPort.sm->retryTimerExpireTime(), Mox::kNever);

  Server server(wheel_, ns_->name(), "10.79.1.1", 7301);
  server.config->retryIntervalIs(3);
  const double start = Mox::now();
  EXPECT_FALSE(server.sm->startListener());
  EXPECT_EQ(server.status->reason(), "Bind (Cannot assign requested address)");
  EXPECT_FALSE(server.sm->fd());
  EXPECT_EQ(server.sm->retryTimerExpireTime(), start + 3);
  ASSERT_TRUE(runUntilBounded([&] { return server.sm->retryTimes() == 2; }, 60.0));
  EXPECT_EQ(Mox::now(), start + 6) << "a server never backs off";
  ASSERT_TRUE(ns_->ip("addr add 10.79.1.1/32 dev lo"));
  ASSERT_TRUE(runUntilBounded([&] { return server.status->listening(); }, 60.0));
  EXPECT_EQ(Mox::now(), start + 9);
  EXPECT_EQ(server.status->reason(), "Listening");
  EXPECT_EQ(server.status->serverStartTimes(), 1u);
}

TEST_F(TcpVirtualTimeTest, AnEdgeTriggeredServerTakesAWholeBacklogAtOnce) {
  Server server(wheel_, ns_->name(), "127.0.0.1", 7302);
  server.config->edgeTriggeredFileDescriptorIs(true);
  ASSERT_TRUE(server.sm->startListener());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<Client>(wheel_, ns_->name(), "127.0.0.1", 7302));
    clients.back()->sm->startConnection();
  }
  // Loopback handshakes are done before the loop turns: one report for three connections.
  EXPECT_TRUE(runUntilBounded([&] { return server.status->connSocketCount() == 3; }, 5.0));
}

// Real connections between two namespaces: a client on the right, a server on the left.
class TcpVethV4Test : public SocketTest::VethPairTest {
 protected:
  void SetUp() override {
    VethPairTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(SocketTest::runUntilLinkRunning(left(), "kvl") &&
                SocketTest::runUntilLinkRunning(right(), "kvr"));
  }
  virtual bool v6() const { return false; }
  std::string address(int host) const {
    return (v6() ? "fd77::" : "10.77.0.") + std::to_string(host);
  }
  Client newClient(Mox::U16 port) { return Client(wheel_, right(), address(1), port); }
  // A kernel TCP counter of the server's namespace ("TCPMD5Failure", "TCPMinTTLDrop").
  long long tcpExt(const std::string& counter) {
    return SocketTest::kernelCounter(*left_, "TcpExt", counter);
  }
  Server newServer(Mox::U16 port) { return Server(wheel_, left(), address(1), port); }

  Ptr<Pylon::TimerWheel> wheel_ = Mox::make<Pylon::TimerWheel>("tcp");
};

class TcpVethTest : public TcpVethV4Test, public ::testing::WithParamInterface<bool> {
 protected:
  bool v6() const override { return GetParam(); }
};

TEST_P(TcpVethTest, AClientRetriesUntilItsServerAppearsAndBothSeeTheConnection) {
  Client client = newClient(7400);
  Failures failures(client.status.get());
  client.sm->startConnection();
  ASSERT_TRUE(runUntilBounded([&] { return !failures.reasons.empty(); }, 5.0));
  EXPECT_EQ(failures.reasons[0], "Connect (Connection refused)");
  EXPECT_EQ(client.status->connectionStatus(), ConnectionStatus::failed);

  Server server = newServer(7400);
  ASSERT_TRUE(server.sm->startListener());
  ASSERT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0)) << client.status->reason();
  ASSERT_TRUE(runUntilBounded([&] { return server.status->connSocketCount() == 1; }, 5.0));
  const TcpConnSocket atClient = client.status->connSocket();
  const TcpConnSocket atServer = server.status->getConnSocket();
  EXPECT_EQ(server.status->connSocketSize(), 0u);
  EXPECT_EQ(atClient.srcIpAddr(), IpGenAddr(address(2)));
  EXPECT_EQ(atClient.dstIpAddr(), IpGenAddr(address(1)));
  EXPECT_EQ(atClient.dstPort(), Port(7400));
  EXPECT_EQ(atServer.srcIpAddr(), atClient.dstIpAddr());
  EXPECT_EQ(atServer.dstIpAddr(), atClient.srcIpAddr());
  EXPECT_EQ(atServer.dstPort(), atClient.srcPort());
  EXPECT_EQ(client.status->connectionSuccessCount(), 1u);
  EXPECT_EQ(client.sm->retryTimerExpireTime(), Mox::kNever);

  // A readiness report with nobody waiting only counts.
  server.sm->fd()->socketReadableCountInc();
  EXPECT_EQ(server.status->serverEagainEintrTimes(), 1u);
  EXPECT_TRUE(server.status->listening());
  EXPECT_EQ(server.status->reason(), "Listening");
}

INSTANTIATE_TEST_SUITE_P(Family, TcpVethTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "ipv6" : "ipv4"; });

TEST_F(TcpVethV4Test, AnIpv6ServerTakesIpv4PeersOnlyWhenNotV6Only) {
  Server server(wheel_, left(), "::", 7401);
  ASSERT_TRUE(server.sm->startListener());
  Client client(wheel_, right(), address(1), 7401);
  Failures failures(client.status.get());
  client.sm->startConnection();
  ASSERT_TRUE(runUntilBounded([&] { return !failures.reasons.empty(); }, 5.0));
  EXPECT_EQ(failures.reasons[0], "Connect (Connection refused)");
  server.sm->v6OnlyIs(false);
  server.sm->restartListener();
  client.sm->startConnection();
  EXPECT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0)) << client.status->reason();
}

// TCP-MD5 and GTSM, as the kernels of both namespaces apply them.
TEST_F(TcpVethV4Test, Md5KeysAndMinimumTtlDecideWhoConnects) {
  const IpGenAddrWithMask clientPrefix("10.77.0.2/32"), serverPrefix("10.77.0.1/32");
  Server server = newServer(7402);
  server.config->md5AuthIs(clientPrefix, "secret");
  server.config->optionsIs(TcpSocketOptions(0x8));
  ASSERT_TRUE(server.sm->startListener());
  const auto refused = [&](const char* counter, const std::function<void(Client&)>& setUp) {
    const long long before = tcpExt(counter);
    Client client = newClient(7402);
    setUp(client);
    client.sm->startConnection();
    EXPECT_TRUE(pollUntil([&] { return tcpExt(counter) > before; }, 5.0)) << counter;
    EXPECT_FALSE(client.connected());
  };
  refused("TCPMD5NotFound", [](Client&) {});
  refused("TCPMD5Failure", [&](Client& client) {
    client.config->md5AuthIs(serverPrefix, "wrong");
    client.config->optionsIs(TcpSocketOptions(0x8));
  });

  Client client = newClient(7402);
  client.config->md5AuthIs(serverPrefix, "secret");
  client.config->optionsIs(TcpSocketOptions(0x8));
  client.sm->startConnection();
  ASSERT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0)) << client.status->reason();
  ASSERT_TRUE(runUntilBounded([&] { return server.status->connSocketSize() == 1; }, 5.0));
  auto sender = Korva::simpleTcpPduPamFactory(client.status->connSocket().fd());
  auto receiver = Korva::simpleTcpPduPamFactory(server.status->getConnSocket().fd());
  PduCollector collector(receiver.get());
  sender->enabledIs(true);
  receiver->enabledIs(true);
  // A key change for another prefix leaves the live connection alone...
  client.config->md5AuthIs(IpGenAddrWithMask("10.99.0.0/24"), "other");
  sender->txPktIs(packetOf(pdu(40, 'a')));
  ASSERT_TRUE(runUntilBounded([&] { return collector.pdus.size() == 1; }, 5.0));
  // ...while a change for the peer's prefix applies to the live socket at once.
  const long long failures = tcpExt("TCPMD5Failure");
  client.config->md5AuthIs(serverPrefix, "changed");
  sender->txPktIs(packetOf(pdu(40, 'b')));
  EXPECT_TRUE(pollUntil([&] { return tcpExt("TCPMD5Failure") > failures; }, 5.0));
  EXPECT_EQ(collector.pdus.size(), 1u);
}

TEST_F(TcpVethV4Test, AMinimumTtlOf255RefusesPeersOneHopAway) {
  Server server = newServer(7403);
  server.config->rxMinTtlIs(Korva::IpTtl(255));
  server.config->optionsIs(TcpSocketOptions(0x4));
  ASSERT_TRUE(server.sm->startListener());
  for (Mox::U8 ttl : {254, 255}) {
    const long long before = tcpExt("TCPMinTTLDrop");
    Client client = newClient(7403);
    client.config->txTtlIs(Korva::IpTtl(ttl));
    client.config->optionsIs(TcpSocketOptions(0x1));
    client.sm->startConnection();
    if (ttl == 254) {
      EXPECT_TRUE(pollUntil([&] { return tcpExt("TCPMinTTLDrop") > before; }, 5.0));
      EXPECT_FALSE(client.connected());
    } else {
      EXPECT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0))
          << client.status->reason();
      EXPECT_EQ(client.sm->lastOptionsApplied(), TcpSocketOptions(0x1));
    }
  }
}

// The peer: connects, writes PDUs framed by hand in random pieces (several PDUs in one write,
// one PDU over many), keeps a copy of the whole PDUs it wrote in a file, then ends as `mode`
// says.
constexpr const char* kPeer = R"(
import random, socket, sys
port, mode, seed, path = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), sys.argv[4]
rng = random.Random(seed)
def pdu(n, length=None):
    b = bytearray(rng.randbytes(n))
    length = n if length is None else length
    b[2], b[3] = length >> 8, length & 255
    return bytes(b)
s = socket.create_connection(('127.0.0.1', port))
s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
tail = b''
if mode == 'stream':
    sizes = [20, 9600] + [rng.choice([rng.randint(20, 60), rng.randint(20, 9600)]) for _ in range(300)]
elif mode == 'midpdu':
    sizes, tail = [rng.randint(20, 3000) for _ in range(3)], pdu(500)[:250]
elif mode == 'toobig':
    sizes, tail = [100], pdu(120, 9601)
else:
    sizes, tail = [100], pdu(40, 19)
data = b''.join(pdu(n) for n in sizes)
open(path, 'wb').write(data)
out, i = data + tail, 0
while i < len(out):
    n = rng.choice([rng.randint(1, 7), rng.randint(1, 200), rng.randint(1, 30000)])
    s.sendall(out[i:i + n])
    i += n
if mode in ('toobig', 'toosmall'):
    try:
        s.recv(1)
    except ConnectionResetError:
        pass
s.close()
)";

// The PDUs of a stream framed as SimpleTcpPduPam frames them.
std::vector<std::string> splitPdus(const std::string& stream) {
  std::vector<std::string> pdus;
  for (size_t at = 0; at + 4 <= stream.size();) {
    const size_t length = size_t(Mox::U8(stream[at + 2])) << 8 | Mox::U8(stream[at + 3]);
    pdus.push_back(stream.substr(at, length));
    at += length;
  }
  return pdus;
}

// A TcpFd on one end of a local stream pair (a stream socket that is not TCP); the other
// end goes to `peer`, closed when the test is done with it.
Ptr<Korva::TcpFd> pairedTcpFd(int* peer) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return nullptr;
  Ptr<Korva::TcpFd> fd = Korva::tcpFdFactory("pair");
  fd->descriptorIs(pair[0]);
  *peer = pair[1];
  return fd;
}

// A server in a throwaway namespace; each test takes the first connection accepted.
class TcpPduPamTest : public SocketTest::NamespaceTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    NamespaceTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    server_ = std::make_unique<Server>(wheel_, ns_->name(), "127.0.0.1", kPort);
    ASSERT_TRUE(server_->sm->startListener()) << server_->status->reason();
  }

  Ptr<Korva::TcpFd> accepted() {
    EXPECT_TRUE(runUntilBounded([&] { return server_->status->connSocketSize() > 0; }, 5.0));
    Ptr<Korva::TcpFd> fd = server_->status->getConnSocket().fd();
    if (fd) fd->edgeTriggeredIs(GetParam());
    return fd;
  }

  // The whole PDUs the peer wrote.
  std::string expectedStream() const {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }

  static constexpr Mox::U16 kPort = 7100;
  Ptr<Pylon::TimerWheel> wheel_ = Mox::make<Pylon::TimerWheel>("tcp");
  std::unique_ptr<Server> server_;
  std::string path_ = "/tmp/korva-tcpp-" + std::to_string(getpid()) + ".bin";
};

TEST_P(TcpPduPamTest, RandomPiecesFromAPythonPeerArriveAsWholePdusExactlyOnce) {
  for (int seed : {1, 2}) {
    SpawnedPython peer(ns_->name(), kPeer,
                       {std::to_string(kPort), "stream", std::to_string(seed), path_});
    ASSERT_TRUE(peer.started());
    Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(accepted());
    PduCollector collector(pam.get());
    pam->enabledIs(true);
    ASSERT_TRUE(runUntilBounded([&] { return pam->rxErrors() > 0; }, 10.0));
    EXPECT_EQ(peer.finish(), 0);
    EXPECT_EQ(pam->rxErrorReason(), "Connection closed by peer");
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(collector.pdus, splitPdus(expectedStream())) << "seed " << seed;
    EXPECT_EQ(collector.pdus.size(), 302u);
  }
  std::remove(path_.c_str());
}

TEST_P(TcpPduPamTest, BadEndingsAreReadErrorsThatKeepTheWholePdusBefore) {
  const struct {
    const char* mode;
    const char* reason;
    int unreadBytes;  // still in the socket: the rest of the bad PDU is never read
  } cases[] = {
      {"midpdu", "Connection closed by peer", 0},
      {"toobig", "PDU length too big", 100},
      {"toosmall", "PDU length too small", 20},
  };
  for (const auto& c : cases) {
    SpawnedPython peer(ns_->name(), kPeer, {std::to_string(kPort), c.mode, "3", path_});
    Ptr<Korva::TcpFd> fd = accepted();
    ASSERT_TRUE(fd);
    Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
    PduCollector collector(pam.get());
    pam->enabledIs(true);
    ASSERT_TRUE(runUntilBounded([&] { return pam->rxErrors() > 0; }, 10.0)) << c.mode;
    EXPECT_EQ(pam->rxErrorReason(), c.reason);
    EXPECT_FALSE(pam->rxPktHolderShadow()) << "the partial PDU is dropped";
    EXPECT_FALSE(fd->notifyOnReadable());
    EXPECT_EQ(collector.pdus, splitPdus(expectedStream())) << c.mode;
    // Arrivals wake the loop through a second watch of the same socket.
    auto arrivals = Mox::make<Mox::FileDescriptor>("arrivals", dup(fd->descriptor()));
    arrivals->edgeTriggeredIs(true);
    int unread = -1;
    EXPECT_TRUE(runUntilBounded(
        [&] { return ioctl(fd->descriptor(), FIONREAD, &unread) == 0 && unread == c.unreadBytes; },
        5.0))
        << c.mode << ": " << unread;
    pam = nullptr;
    arrivals = nullptr;
    fd->cleanup();
    EXPECT_EQ(peer.finish(), 0);
  }
  std::remove(path_.c_str());
}

TEST_P(TcpPduPamTest, PartialWritesKeepOnlyTheRestAndDeliverEveryByteOnce) {
  Client client(wheel_, ns_->name(), "127.0.0.1", kPort);
  // Small buffers at both ends (accepted sockets inherit the listener's).
  ASSERT_EQ(Korva::setSocketOptionInteger(server_->sm->fd()->descriptor(), SOL_SOCKET, SO_RCVBUF,
                                          4096, false),
            0);
  client.sm->startConnection();
  ASSERT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0)) << client.status->reason();
  Ptr<Korva::TcpFd> clientFd = client.status->connSocket().fd();
  clientFd->edgeTriggeredIs(GetParam());
  ASSERT_EQ(
      Korva::setSocketOptionInteger(clientFd->descriptor(), SOL_SOCKET, SO_SNDBUF, 4096, false), 0);
  Ptr<SimpleTcpPduPam> sender = Korva::simpleTcpPduPamFactory(clientFd);
  sender->enabledIs(true);
  Ptr<SimpleTcpPduPam> receiver = Korva::simpleTcpPduPamFactory(accepted());

  std::vector<std::string> sent;
  while (sender->writable() && sent.size() < 200) {
    sent.push_back(pdu(9600, char('a' + sent.size() % 26)));
    sender->txPktIs(packetOf(sent.back()));
  }
  ASSERT_FALSE(sender->writable()) << "the kernel took every PDU whole";
  ASSERT_TRUE(sender->txPktHolderShadow());
  EXPECT_EQ(sender->txPktHolderShadow()->bytes(), sender->txRemainingLength());
  EXPECT_GT(sender->txRemainingLength(), 0);
  EXPECT_EQ(sender->txPktHolderShadow()->stringValue(),
            sent.back().substr(9600 - sender->txRemainingLength()));
  EXPECT_TRUE(clientFd->notifyOnWritable());
  // The rest goes first: another send now breaks the contract.
  EXPECT_DEATH(sender->txPktIs(packetOf(pdu(20, 'x'))), "\"writable\\(\\)\"");

  // Gathered sends go the same way once the rest is out.
  PduCollector collector(receiver.get());
  receiver->enabledIs(true);
  ASSERT_TRUE(runUntilBounded([&] { return sender->writable(); }, 5.0));
  EXPECT_FALSE(sender->txPktHolderShadow());
  sent.push_back(pdu(5020, 'G'));
  iovec pieces[] = {{sent.back().data(), 20}, {sent.back().data() + 20, 5000}};
  sender->txIovIs(pieces, 2);
  ASSERT_TRUE(runUntilBounded([&] { return collector.pdus.size() == sent.size(); }, 10.0));
  EXPECT_EQ(collector.pdus, sent);
  EXPECT_TRUE(sender->writable());
  EXPECT_EQ(sender->txErrors(), 0u);
  EXPECT_EQ(receiver->rxErrors(), 0u);
  EXPECT_EQ(client.status->connectionSuccessCount(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Triggering, TcpPduPamTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "edge" : "level"; });

TEST(TcpPduPam, KeepaliveIsSetInOrderAndReadsBack) {
  const int sd = socket(AF_INET, SOCK_STREAM, 0);
  Ptr<Korva::TcpFd> fd = Korva::tcpFdFactory("keepalive");
  fd->descriptorIs(sd);
  Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
  const auto option = [&](int level, int name) {
    int value = -1;
    Korva::getSocketOptionInteger(sd, level, name, &value);
    return value;
  };
  pam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 5, 4));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 30);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 5);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 4);
  pam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 0, 4));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0) << "any value 0 switches it off";
  EXPECT_EQ(pam->tcpOptErrors(), 0u);

  // A stream socket that is not TCP takes SO_KEEPALIVE but not the TCP options.
  int peer = -1;
  Ptr<SimpleTcpPduPam> unixPam = Korva::simpleTcpPduPamFactory(pairedTcpFd(&peer));
  unixPam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 5, 4));
  EXPECT_EQ(unixPam->tcpOptErrors(), 1u);
  EXPECT_EQ(unixPam->tcpOptErrorReason(),
            std::string("setsockopt() error while setting TCP_KEEPIDLE: ") + strerror(EOPNOTSUPP));
  close(peer);
}

TEST(TcpPduPam, ASendThatFailsIsCountedOnceAndTheWriteWatchStops) {
  int peer = -1;
  Ptr<Korva::TcpFd> fd = pairedTcpFd(&peer);
  ASSERT_TRUE(fd);
  Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
  pam->enabledIs(true);
  for (int sent = 0; pam->writable() && sent < 1000; ++sent) pam->txPktIs(packetOf(pdu(9600, 'w')));
  ASSERT_TRUE(pam->txPktHolderShadow());
  close(peer);
  ASSERT_TRUE(runUntilBounded([&] { return pam->txErrors() > 0; }, 5.0));
  EXPECT_EQ(pam->txErrorReason(), std::string("Send failed with ") + strerror(EPIPE));
  EXPECT_FALSE(pam->writable());
  // A socket that failed stays writable to the kernel: watching it would spin.
  EXPECT_FALSE(fd->notifyOnWritable());
  runUntilBounded([] { return false; }, 0.05, 50);
  EXPECT_EQ(pam->txErrors(), 1u);
}

TEST(TcpPduPamDeathTest, TheBasePamCannotFramePdus) {
  int peer = -1;
  Ptr<TcpPduPam> plain = Korva::tcpPduPamFactory(pairedTcpFd(&peer));
  EXPECT_DEATH(
      {
        plain->enabledIs(true);
        send(peer, "x", 1, 0);
        runUntilBounded([] { return false; }, 1.0, 100);
      },
      "Need to implement getRemainingLength in a derived class");
  close(peer);
}

}  // namespace
