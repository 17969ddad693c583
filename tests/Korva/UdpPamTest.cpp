#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SocketTestUtil.h"

namespace {

using Korva::Ip6Addr;
using Korva::IpAddr;
using Korva::UdpPam;
using Mox::Ptr;
using SocketTest::packetOf;
using Mode = UdpPam::Mode;

// Socket set-up is the Pam's own business: agents change modes, they never run the steps.
// (clang-format cannot lay out a disjunction of requires-expressions yet.)
// clang-format off
template <class Pam>
constexpr bool kSetUpStepsArePublic = requires(Pam& pam) { pam.doNewSocket(); } ||
                                      requires(Pam& pam) { pam.doBind(); } ||
                                      requires(Pam& pam) { pam.noteLocalPort(); };
// clang-format on
static_assert(!kSetUpStepsArePublic<UdpPam>);

// Reads every datagram a Pam reports, as an agent's reactor does.
struct Receiver : UdpPam::Notifiee {
  explicit Receiver(UdpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    while (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) received.push_back(pkt->stringValue());
  }
  std::vector<std::string> received;
};

bool receives(const Receiver& receiver, size_t count) {
  return Mox::runUntil([&] { return receiver.received.size() >= count; }, 5.0);
}

Ptr<UdpPam> newPam(const std::string& name, const std::string& ns, bool v6) {
  Ptr<UdpPam> pam = Korva::udpPamFactory(name);
  pam->netNsIs(Korva::NamespaceName(ns));
  pam->ipv6EnIs(v6);
  return pam;
}

int socketOption(const UdpPam& pam, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(pam.fileDesc()->descriptor(), level, option, &value, &length);
  return value;
}

class UdpPamFamilyTest : public SocketTest::VethPairTest,
                         public ::testing::WithParamInterface<bool> {
 protected:
  bool v6() const { return GetParam(); }
  // Points `pam` at host 1 or 2 of the veth subnet.
  void destinationIs(UdpPam& pam, int host) const {
    if (v6()) {
      pam.txDstIp6AddrIs(Ip6Addr("fd77::" + std::to_string(host)));
    } else {
      pam.txDstIpAddrIs(IpAddr(10, 77, 0, Mox::U8(host)));
    }
  }
  std::string source(const UdpPam& pam) const {
    return v6() ? pam.rxSrcIp6Addr().stringValue() : pam.rxSrcIpAddr().stringValue();
  }
  std::string destination(const UdpPam& pam) const {
    return v6() ? pam.rxDstIp6Addr().stringValue() : pam.rxDstIpAddr().stringValue();
  }
  std::string address(int host) const {
    return v6() ? "fd77::" + std::to_string(host) : "10.77.0." + std::to_string(host);
  }
};

TEST_P(UdpPamFamilyTest, ClientAndServerExchangeAcrossTheVethPair) {
  Ptr<UdpPam> server = newPam("server", left(), v6());
  server->rxPortIs(4789);
  server->modeIs(Mode::server);
  EXPECT_EQ(server->rxPortLocal(), 4789);
  Ptr<UdpPam> client = newPam("client", right(), v6());
  destinationIs(*client, 1);
  client->txPortIs(4789);
  client->txTosIs(Korva::IpDscp(0xb8));
  client->modeIs(Mode::client);
  EXPECT_FALSE(client->socketConnected()) << "a client connects on its first send";
  Receiver atServer(server.get());
  Receiver atClient(client.get());

  client->txPktIs(packetOf("ping"));
  EXPECT_TRUE(client->socketConnected());
  ASSERT_TRUE(receives(atServer, 1));
  EXPECT_EQ(atServer.received[0], "ping");
  EXPECT_EQ(source(*server), address(2));
  EXPECT_EQ(server->rxSrcPort(), client->rxPortLocal());
  EXPECT_NE(client->rxPortLocal(), 0);
  EXPECT_EQ(destination(*server), address(1));
  EXPECT_EQ(server->rxIfIndex(), leftIndex_);
  EXPECT_EQ(server->rxTTL(), 64) << "the sender's default TTL or hop limit";
  EXPECT_EQ(server->rxTOS(), 0xb8) << "the sender's TOS or traffic class";

  // The server answers whoever spoke last, as a responder does.
  if (v6()) {
    server->txDstIp6AddrIs(server->rxSrcIp6Addr());
  } else {
    server->txDstIpAddrIs(server->rxSrcIpAddr());
  }
  server->txPortIs(server->rxSrcPort());
  server->txPktIs(packetOf("pong"));
  server->txPktIs(packetOf(std::string(1400, 'x')));
  ASSERT_TRUE(receives(atClient, 2));
  EXPECT_EQ(atClient.received[0], "pong");
  EXPECT_EQ(atClient.received[1].size(), 1400u);
  EXPECT_EQ(source(*client), address(1));
  EXPECT_EQ(client->rxSrcPort(), 4789);
  EXPECT_EQ(destination(*client), address(2));
  EXPECT_EQ(client->rxIfIndex(), rightIndex_);
  EXPECT_EQ(client->rxTOS(), 0);

  EXPECT_EQ(client->txPkts(), 1u);
  EXPECT_EQ(server->txPkts(), 2u);
  EXPECT_EQ(server->rxPkts(), 1u);
  EXPECT_EQ(client->rxPkts(), 2u);
}

TEST_P(UdpPamFamilyTest, ImposedSourceAndEgressInterfaceReachThePeer) {
  ASSERT_TRUE(
      left_->ip(v6() ? "addr add fd77::11/64 dev kvl nodad" : "addr add 10.77.0.11/24 dev kvl"));
  Ptr<UdpPam> server = newPam("server", right(), v6());
  server->rxPortIs(4790);
  server->modeIs(Mode::server);
  Receiver atServer(server.get());
  Ptr<UdpPam> sender = newPam("sender", left(), v6());
  sender->modeIs(Mode::server);  // unbound port, destination per datagram
  destinationIs(*sender, 2);
  sender->txPortIs(4790);
  if (v6()) {
    sender->txSrcIp6AddrIs(Ip6Addr("fd77::11"));
  } else {
    sender->txSrcIpAddrIs(IpAddr(10, 77, 0, 11));
  }
  sender->txIfIndexIs(leftIndex_);
  sender->txPktIs(packetOf("from 11"));
  ASSERT_TRUE(receives(atServer, 1));
  EXPECT_EQ(source(*server), address(11));
}

TEST_P(UdpPamFamilyTest, MulticastJoinDeliversAndLeaveStops) {
  // IPv6 multicast routes appear only once the link has carrier.
  ASSERT_TRUE(SocketTest::runUntilLinkRunning(right(), "kvr"));
  Ptr<UdpPam> member = newPam("member", left(), v6());
  member->rxPortIs(4791);
  member->modeIs(Mode::server);
  Receiver atMember(member.get());
  const IpAddr group4(239, 77, 0, 1);
  const Ip6Addr group6("ff12::77");
  auto membership = [&](bool join) {
    if (v6()) {
      member->handleMcastGroup("kvl", group6, join);
    } else {
      member->handleV4McastGroup("kvl", group4, join);
    }
  };
  membership(true);

  Ptr<UdpPam> sender = newPam("sender", right(), v6());
  sender->modeIs(Mode::server);
  sender->txPortIs(4791);
  if (v6()) {
    sender->txIfIndexIs(rightIndex_);
  } else {
    // IPv4 sends name no interface: the group is routed out of the link.
    ASSERT_TRUE(right_->ip("route add 224.0.0.0/4 dev kvr"));
  }
  auto send = [&](bool toGroup, const std::string& text) {
    if (toGroup && v6()) {
      sender->txDstIp6AddrIs(group6);
    } else if (toGroup) {
      sender->txDstIpAddrIs(group4);
    } else {
      destinationIs(*sender, 1);
    }
    sender->txPktIs(packetOf(text));
  };
  send(true, "to the group");
  ASSERT_TRUE(receives(atMember, 1));
  EXPECT_EQ(atMember.received[0], "to the group");
  EXPECT_EQ(destination(*member), v6() ? group6.stringValue() : group4.stringValue());

  membership(false);
  // The link keeps order: the unicast marker arriving alone shows the group datagram did not.
  send(true, "after leaving");
  send(false, "marker");
  ASSERT_TRUE(receives(atMember, 2));
  EXPECT_EQ(atMember.received[1], "marker");
  EXPECT_EQ(sender->txPkts(), 3u);
}

TEST_P(UdpPamFamilyTest, MulticastLoopbackIsOffUnlessAskedFor) {
  const int level = v6() ? IPPROTO_IPV6 : IPPROTO_IP;
  const int option = v6() ? IPV6_MULTICAST_LOOP : IP_MULTICAST_LOOP;
  Ptr<UdpPam> pam = newPam("loop", left(), v6());
  pam->modeIs(Mode::server);
  EXPECT_EQ(socketOption(*pam, level, option), 0);
  pam->enableIpMulticastLoopIs(true);
  pam->modeIs(Mode::client);
  EXPECT_EQ(socketOption(*pam, level, option), 1) << "left at the kernel's default";
}

TEST_P(UdpPamFamilyTest, NamespaceChangeRecreatesTheSocket) {
  Ptr<UdpPam> server = newPam("mover", left(), v6());
  server->rxPortIs(4792);
  server->modeIs(Mode::server);
  const int descriptors = SocketTest::openDescriptorCount();
  const Mox::U32 polls = server->readableCount();
  server->netNsIs(Korva::NamespaceName(right()));
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors) << "the old socket is closed";
  EXPECT_GT(server->readableCount(), polls) << "a new reactor polls the new socket";
  Receiver atServer(server.get());

  // Now reachable at the right-hand address, from the left.
  Ptr<UdpPam> client = newPam("client", left(), v6());
  destinationIs(*client, 2);
  client->txPortIs(4792);
  client->modeIs(Mode::client);
  client->txPktIs(packetOf("moved"));
  ASSERT_TRUE(receives(atServer, 1));
  EXPECT_EQ(server->rxIfIndex(), rightIndex_);
}

INSTANTIATE_TEST_SUITE_P(Families, UdpPamFamilyTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "IPv6" : "IPv4"; });

// --- one namespace, over loopback ---

class UdpPamLoopbackTest : public SocketTest::NamespaceTest {
 protected:
  Ptr<UdpPam> server(const std::string& name, Mox::U16 port) {
    Ptr<UdpPam> pam = newPam(name, ns_->name(), false);
    pam->rxIpAddrIs(IpAddr(127, 0, 0, 1));
    pam->rxPortIs(port);
    pam->modeIs(Mode::server);
    return pam;
  }
  Ptr<UdpPam> client(const std::string& name, Mox::U16 port) {
    Ptr<UdpPam> pam = newPam(name, ns_->name(), false);
    pam->txDstIpAddrIs(IpAddr(127, 0, 0, 1));
    pam->txPortIs(port);
    pam->modeIs(Mode::client);
    return pam;
  }
};

TEST_F(UdpPamLoopbackTest, RefusedSendsStillCountAndNoErrorIsCounted) {
  Mox::TraceCapture capture;
  Mox::traceConfigIs("UdpPam");
  Ptr<UdpPam> pam = client("refused", 4793);  // nobody listens there
  pam->txPktIs(packetOf("first"));
  const int fd = pam->fileDesc()->descriptor();
  ASSERT_TRUE(Mox::runUntil(
      [&] {
        pollfd check{fd, 0, 0};
        return poll(&check, 1, 0) == 1 && (check.revents & POLLERR);
      },
      5.0))
      << "the port-unreachable answer is pending on the socket";
  pam->txPktIs(packetOf("second"));
  Mox::traceConfigIs("");
  EXPECT_TRUE(capture.contains("sendmsg failed with " + std::to_string(ECONNREFUSED)));
  EXPECT_EQ(pam->txPkts(), 2u);
  EXPECT_EQ(pam->txErrors(), 0u);
}

TEST_F(UdpPamLoopbackTest, ClientRefusesANonUnicastPeer) {
  for (const char* peer : {"224.0.0.1", "255.255.255.255"}) {
    Ptr<UdpPam> pam = client(peer, 4797);
    pam->txDstIpAddrIs(IpAddr(peer));
    pam->txPktIs(packetOf("x"));
    EXPECT_FALSE(pam->socketConnected()) << peer;
    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(pam->fileDesc()->descriptor(), reinterpret_cast<sockaddr*>(&local), &length);
    EXPECT_EQ(local.sin_port, 0) << peer << ": a send or connect would have bound a port";
    EXPECT_EQ(pam->txPkts(), 0u) << peer;
    EXPECT_EQ(pam->txErrors(), 0u) << peer;
  }
}

TEST_F(UdpPamLoopbackTest, TruncatedDatagramsAreDroppedLargerLimitsGetLargerBuffers) {
  Mox::TraceCapture capture;
  Mox::traceConfigIs("UdpPam");
  Ptr<UdpPam> receiver = server("short", 4794);
  receiver->maxRxPktDataIs(16);
  Ptr<UdpPam> sender = client("long", 4794);
  sender->txPktIs(packetOf(std::string(17, 'a')));
  sender->txPktIs(packetOf(std::string(16, 'b')));
  Ptr<Korva::Pkt> pkt;
  ASSERT_TRUE(Mox::runUntil([&] { return bool(pkt = receiver->rxPkt()); }, 5.0));
  Mox::traceConfigIs("");
  EXPECT_EQ(pkt->stringValue(), std::string(16, 'b'));
  EXPECT_TRUE(capture.contains("Discarding truncated packet"));
  EXPECT_EQ(receiver->rxPkts(), 1u);
  EXPECT_GE(pkt->sharedBuffer()->headRoom(), Korva::Pkt::Manager::defaultBufferSize - 16);
  receiver->maxRxPktDataIs(9000);
  sender->txPktIs(packetOf(std::string(9000, 'j')));
  ASSERT_TRUE(Mox::runUntil([&] { return bool(pkt = receiver->rxPkt()); }, 5.0));
  EXPECT_EQ(pkt->bytes(), 9000u);
}

TEST_F(UdpPamLoopbackTest, FailedBindKeepsTheModeWithNothingOpen) {
  const int descriptors = SocketTest::openDescriptorCount();
  Ptr<UdpPam> pam = newPam("bad", ns_->name(), false);
  pam->rxIpAddrIs(IpAddr(192, 0, 2, 1));  // not an address of this namespace
  SocketTest::expectErrnoFailure([&] { pam->modeIs(Mode::server); }, EADDRNOTAVAIL, "bind");
  EXPECT_EQ(pam->mode(), Mode::server);
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_FALSE(pam->fdSm());
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
  // A namespace that does not exist fails at the socket step; once the cause is gone, a new
  // namespace (here the same one again) makes the socket.
  pam->rxIpAddrIs(IpAddr(127, 0, 0, 1));
  SocketTest::expectErrnoFailure(
      [&] { pam->netNsIs(Korva::NamespaceName(ns_->name() + "-missing")); }, ENOENT, "socket");
  EXPECT_EQ(pam->mode(), Mode::server);
  EXPECT_FALSE(pam->fileDesc());
  pam->netNsIs(Korva::NamespaceName(ns_->name()));
  EXPECT_TRUE(pam->fileDesc());
}

// A client's socket has the attributes' options; each mode change makes a new socket and
// disabled closes it.
TEST_F(UdpPamLoopbackTest, ModesMakeSocketsWithTheAttributesOptions) {
  const int descriptors = SocketTest::openDescriptorCount();
  Ptr<UdpPam> pam = newPam("modes", ns_->name(), false);
  pam->txTosIs(Korva::IpDscp(0xb8));
  pam->txDstIpAddrIs(IpAddr(127, 0, 0, 1));
  pam->txPortIs(4796);
  pam->modeIs(Mode::client);
  EXPECT_EQ(socketOption(*pam, IPPROTO_IP, IP_TOS), 0xb8);
  EXPECT_EQ(socketOption(*pam, IPPROTO_IP, IP_PKTINFO), 1);
  EXPECT_EQ(socketOption(*pam, SOL_SOCKET, SO_BROADCAST), 1);
  EXPECT_EQ(socketOption(*pam, SOL_SOCKET, SO_REUSEADDR), 1);
  pam->incSockBufSize(1 << 20);
  EXPECT_GE(socketOption(*pam, SOL_SOCKET, SO_RCVBUF), 1 << 20);
  EXPECT_GE(socketOption(*pam, SOL_SOCKET, SO_SNDBUF), 1 << 20);
  pam->txPktIs(packetOf("x"));
  EXPECT_TRUE(pam->socketConnected());
  pam->modeIs(Mode::server);
  EXPECT_FALSE(pam->socketConnected());
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors + 1);
  pam->modeIs(Mode::disabled);
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
}

TEST(UdpPamDeathTest, SendingRequiresAModeAPortAndADestination) {
  Ptr<UdpPam> pam = Korva::udpPamFactory("death");
  EXPECT_DEATH(pam->txPktIs(packetOf("x")), "Assertion \"mode\\(\\) != disabled\\(\\)\" failed");
  pam->modeIs(Mode::server);
  EXPECT_DEATH(pam->txPktIs(packetOf("x")), "Assertion \"txPort\\(\\) != U16\\(\\)\" failed");
  pam->txPortIs(9);
  EXPECT_DEATH(pam->txPktIs(packetOf("x")),
               "Assertion \"txDstIpAddr\\(\\) != Korva::IpAddr::ipAddrZero\\(\\)\" failed");
  pam->modeIs(Mode::client);
  pam->txDstIpAddrIs(IpAddr(127, 0, 0, 1));
  pam->txPktIs(packetOf("x"));
  EXPECT_DEATH(pam->assertNotConnected(), "Assertion \"!socketConnected\\(\\)\" failed");
}

}  // namespace
