#include <Korva/TcpClientServer.h>
#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include "TcpTestUtil.h"
#include "ValueTestUtil.h"

namespace {

using namespace TcpTest;
using Korva::IpGenAddrWithMask;
using Korva::TcpConnSocket;
using Korva::TcpSocketOptions;

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
class TcpVirtualTimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ns_.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    ASSERT_TRUE(ns_.ip("link set lo up"));
  }
  // A client of a port nobody listens on: every attempt is refused at once.
  std::unique_ptr<Client> refusedClient(Mox::U32 backoffRetries) {
    auto client = std::make_unique<Client>(wheel_, ns_.name(), "127.0.0.1", 7300);
    client->config->exponentialBackoffRetriesIs(backoffRetries);
    return client;
  }

  Mox::VirtualTime time_;
  SocketTest::ScopedNs ns_{"tcpv"};
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
  ASSERT_TRUE(ns_.ip("link add kv0 type veth peer name kv1") &&
              ns_.ip("addr add 10.79.0.1/24 dev kv0") && ns_.ip("link set kv0 up") &&
              ns_.ip("neigh add 10.79.0.2 lladdr 02:00:00:00:00:02 dev kv0 nud permanent"));
  Client client(wheel_, ns_.name(), "10.79.0.2", 179);
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
  Server noPort(wheel_, ns_.name(), "127.0.0.1", 0);
  EXPECT_FALSE(noPort.sm->startListener());
  EXPECT_EQ(noPort.status->reason(), "Listening port is 0");
  EXPECT_FALSE(noPort.sm->fd());
  EXPECT_EQ(noPort.sm->retryTimerExpireTime(), Mox::kNever);

  Server server(wheel_, ns_.name(), "10.79.1.1", 7301);
  server.config->retryIntervalIs(3);
  const double start = Mox::now();
  EXPECT_FALSE(server.sm->startListener());
  EXPECT_EQ(server.status->reason(), "Bind (Cannot assign requested address)");
  EXPECT_FALSE(server.sm->fd());
  EXPECT_EQ(server.sm->retryTimerExpireTime(), start + 3);
  ASSERT_TRUE(runUntilBounded([&] { return server.sm->retryTimes() == 2; }, 60.0));
  EXPECT_EQ(Mox::now(), start + 6) << "a server never backs off";
  ASSERT_TRUE(ns_.ip("addr add 10.79.1.1/32 dev lo"));
  ASSERT_TRUE(runUntilBounded([&] { return server.status->listening(); }, 60.0));
  EXPECT_EQ(Mox::now(), start + 9);
  EXPECT_EQ(server.status->reason(), "Listening");
  EXPECT_EQ(server.status->serverStartTimes(), 1u);
}

TEST_F(TcpVirtualTimeTest, AnEdgeTriggeredServerTakesAWholeBacklogAtOnce) {
  Server server(wheel_, ns_.name(), "127.0.0.1", 7302);
  server.config->edgeTriggeredFileDescriptorIs(true);
  ASSERT_TRUE(server.sm->startListener());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<Client>(wheel_, ns_.name(), "127.0.0.1", 7302));
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
    const long before = tcpExtCounter(left(), counter);
    Client client = newClient(7402);
    setUp(client);
    client.sm->startConnection();
    EXPECT_TRUE(pollUntil([&] { return tcpExtCounter(left(), counter) > before; }, 5.0)) << counter;
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
  const long failures = tcpExtCounter(left(), "TCPMD5Failure");
  client.config->md5AuthIs(serverPrefix, "changed");
  sender->txPktIs(packetOf(pdu(40, 'b')));
  EXPECT_TRUE(pollUntil([&] { return tcpExtCounter(left(), "TCPMD5Failure") > failures; }, 5.0));
  EXPECT_EQ(collector.pdus.size(), 1u);
}

TEST_F(TcpVethV4Test, AMinimumTtlOf255RefusesPeersOneHopAway) {
  Server server = newServer(7403);
  server.config->rxMinTtlIs(Korva::IpTtl(255));
  server.config->optionsIs(TcpSocketOptions(0x4));
  ASSERT_TRUE(server.sm->startListener());
  for (Mox::U8 ttl : {254, 255}) {
    const long before = tcpExtCounter(left(), "TCPMinTTLDrop");
    Client client = newClient(7403);
    client.config->txTtlIs(Korva::IpTtl(ttl));
    client.config->optionsIs(TcpSocketOptions(0x1));
    client.sm->startConnection();
    if (ttl == 254) {
      EXPECT_TRUE(pollUntil([&] { return tcpExtCounter(left(), "TCPMinTTLDrop") > before; }, 5.0));
      EXPECT_FALSE(client.connected());
    } else {
      EXPECT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0))
          << client.status->reason();
      EXPECT_EQ(client.sm->lastOptionsApplied(), TcpSocketOptions(0x1));
    }
  }
}

}  // namespace
