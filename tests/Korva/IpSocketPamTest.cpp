// The raw IP Pams against peers that are not our code: ping, ping -6, Python sockets, and
// the kernel's own option read-back; a reader records each packet with what it carried.
#include <Korva/Ip6Hdr.h>
#include <Korva/Ip6HdrInclSocketPam.h>
#include <Korva/Ip6SocketPam.h>
#include <Korva/IpSocketPam.h>
#include <Korva/UdpHdr.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <linux/filter.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "SocketTestUtil.h"

namespace {

using Korva::Ip6Addr;
using Korva::IpAddr;
using Korva::IpGenAddr;
using Korva::IpSocketOptions;
using Korva::ipSocketOptions;
using Korva::IpSocketPam;
using Mox::Ptr;
using SocketTest::packetOf;

struct Arrival {
  std::string bytes;
  Korva::IpGenAddr src;
  Korva::IpGenAddr dst;
  Mox::U32 ifIndex;
  Mox::U8 ttl;
  Mox::U8 tos;
};

// Reads every packet a Pam reports, as an agent's reactor does.
struct Receiver : Korva::IpPam::Notifiee {
  explicit Receiver(Korva::IpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    Korva::IpPam& pam = *notifier();
    while (Mox::Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      arrivals.push_back({pkt->stringValue(), pam.rxSrcIpAddr(), pam.rxDstIpAddr(), pam.rxIfIndex(),
                          pam.rxTTL(), pam.rxTOS()});
    }
  }
  // Runs the loop until a packet that `wanted` accepts has come, at most 5 s; its index or -1.
  int waitFor(const std::function<bool(const Arrival&)>& wanted) {
    size_t seen = 0;
    int found = -1;
    Mox::runUntil(
        [&] {
          for (; found < 0 && seen < arrivals.size(); ++seen) {
            if (wanted(arrivals[seen])) found = int(seen);
          }
          return found >= 0;
        },
        5.0);
    return found;
  }
  std::vector<Arrival> arrivals;
};

int socketOption(const Korva::IpPam& pam, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(pam.fileDesc()->descriptor(), level, option, &value, &length);
  return value;
}

struct ExpectedOption {
  int level, option, value;
};

void expectOptions(const Korva::IpPam& pam, std::initializer_list<ExpectedOption> table) {
  for (const ExpectedOption& e : table) {
    EXPECT_EQ(socketOption(pam, e.level, e.option), e.value) << "option " << e.option;
  }
}

// A Python UDP socket bound to `address` and `port` ("AF_INET" or "AF_INET6") that prints
// the first datagram it gets and its sender: an ordinary receiver, not our code.
std::string udpReader(const std::string& family, const std::string& address, int port) {
  return "import socket\n"
         "s = socket.socket(socket." +
         family +
         ", socket.SOCK_DGRAM)\n"
         "s.bind(('" +
         address + "', " + std::to_string(port) +
         "))\n"
         "s.settimeout(5)\n"
         "print('ready', flush=True)\n"
         "data, peer = s.recvfrom(2048)\n"
         "print(data.decode() + ' from ' + peer[0], flush=True)\n";
}

// A UDP datagram from port 40000 to `port` behind IPv4 or IPv6 and UDP headers we build,
// checksums included.
template <class Address>
Ptr<Korva::Pkt> udpDatagram(const Address& src, const Address& dst, Mox::U16 port,
                            const std::string& payload) {
  constexpr bool v4 = std::is_same_v<Address, IpAddr>;
  Ptr<Korva::Pkt> pkt = packetOf(payload);
  auto* udp = new (pkt->newSharedHeadData(sizeof(Korva::UdpHdr))) Korva::UdpHdr;
  udp->srcPort.valueIs(40000);
  udp->dstPort.valueIs(port);
  udp->len.valueIs(Mox::U16(pkt->bytes()));
  auto view = [&] {
    if constexpr (v4) {
      return Korva::udpHdrWrapperFactory(pkt, 0);
    } else {
      return Korva::udpHdrWrapperIpv6Factory(pkt, 0);
    }
  }();
  view->ipSrcIs(src);
  view->ipDstIs(dst);
  udp->checksum = view->computedChecksum();
  if constexpr (v4) {
    auto* ip = new (pkt->newSharedHeadData(sizeof(Korva::IpHdr))) Korva::IpHdr;
    ip->versionIs(4);
    ip->headerBytesIs(sizeof(Korva::IpHdr));
    ip->totalLen.valueIs(Mox::U16(pkt->bytes()));
    ip->ttl.valueIs(64);
    ip->protocolNumIs(Korva::ipProtoUdp);
    ip->srcAddrIs(src);
    ip->dstAddrIs(dst);
    ip->checksum = ip->computedChecksum();
  } else {
    auto* ip = new (pkt->newSharedHeadData(sizeof(Korva::Ip6Hdr))) Korva::Ip6Hdr;
    ip->versionIs(6);
    ip->payloadLen.valueIs(Mox::U16(pkt->bytes() - sizeof(Korva::Ip6Hdr)));
    ip->nextHeader.valueIs(Korva::ipProtoUdp);
    ip->hopLimit.valueIs(64);
    ip->srcAddrIs(src);
    ip->dstAddrIs(dst);
  }
  return pkt;
}

Ptr<IpSocketPam> newPam(const std::string& name, Korva::IpProtocolNumber protocol,
                        const std::string& ns) {
  return Korva::ipSocketPamFactory(name, protocol, Korva::NamespaceName(ns));
}

// Admits ICMP echo requests only: the type byte sits behind an IPv4 header of any length.
void admitEchoRequests(Korva::IpPam& pam) {
  const sock_filter program[] = {
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 8, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  for (Mox::U8 i = 0; i < std::size(program); ++i) {
    pam.rxFilterIs(i, Korva::IpFilter(program[i].code, program[i].jt, program[i].jf, program[i].k));
  }
}

Mox::U8 icmpType(const Arrival& arrival) {
  const size_t headerBytes = (Mox::U8(arrival.bytes[0]) & 0xf) * 4u;
  return Mox::U8(arrival.bytes.at(headerBytes));
}

class IpSocketPamNetTest : public SocketTest::VethPairTest {};

TEST_F(IpSocketPamNetTest, PingArrivesWithItsMetadataAndTheFilterAdmitsOnlyRequests) {
  Ptr<IpSocketPam> pam = newPam("icmp", Korva::ipProtoIcmp, right());
  pam->optionsIs(ipSocketOptions({IpSocketOptions::ipPktInfo, IpSocketOptions::ipRecvTTL,
                                  IpSocketOptions::ipRecvTOS, IpSocketOptions::ipAttachFilter}));
  admitEchoRequests(*pam);
  pam->enabledIs(true);
  Receiver receiver(pam.get());

  // The right side's own ping brings an echo reply back first: the filter drops it.
  ASSERT_TRUE(right_->exec("ping -c 1 -W 5 10.77.0.1"));
  ASSERT_TRUE(left_->exec("ping -c 1 -W 5 -t 33 -Q 0x20 10.77.0.2"));
  const int request = receiver.waitFor([](const Arrival& a) { return icmpType(a) == 8; });
  ASSERT_EQ(request, 0) << "the echo reply got through the filter";
  const Arrival& arrival = receiver.arrivals[0];
  EXPECT_EQ(arrival.src, IpGenAddr(IpAddr(10, 77, 0, 1)));
  EXPECT_EQ(arrival.dst, IpGenAddr(IpAddr(10, 77, 0, 2)));
  EXPECT_EQ(arrival.ifIndex, rightIndex_);
  EXPECT_EQ(arrival.ttl, 33);
  EXPECT_EQ(arrival.tos, 0x20);

  // Without the filter, the reply to the right side's ping arrives too.
  pam->optionsIs(pam->options() & ~Mox::U32(IpSocketOptions::ipAttachFilter));
  ASSERT_TRUE(right_->exec("ping -c 1 -W 5 10.77.0.1"));
  EXPECT_GT(receiver.waitFor([](const Arrival& a) { return icmpType(a) == 0; }), 0);
}

// The options the far side's kernel saw in the IPv4 headers of two packets of protocol 253.
constexpr const char* kOptionsReader = R"(
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, 253)
s.settimeout(5)
print('ready', flush=True)
for _ in range(2):
    data = s.recv(2048)
    print('options:' + data[20:(data[0] & 15) * 4].hex(), flush=True)
)";

TEST_F(IpSocketPamNetTest, RouterAlertIsOnTheWireUntilCleared) {
  SocketTest::PythonPeer reader(*right_, kOptionsReader);
  ASSERT_EQ(reader.line(), "ready");
  Ptr<IpSocketPam> pam = newPam("ra", Korva::IpProtocolNumber(253), left());
  pam->ipPktOptionIs(Korva::IpPktOption::ipPktRouterAlert, true);
  pam->enabledIs(true);
  pam->txDstIpAddrIs(IpGenAddr(IpAddr(10, 77, 0, 2)));
  pam->txPktIs(packetOf("alert"));
  EXPECT_EQ(reader.line(), "options:94040000");
  pam->ipPktOptionIs(Korva::IpPktOption::ipPktRouterAlert, false);
  pam->txPktIs(packetOf("plain"));
  EXPECT_EQ(reader.line(), "options:");
  EXPECT_EQ(pam->txPktCount(), 2u);

  // With the caller's own header the socket's IP options are left alone.
  Ptr<IpSocketPam> included = newPam("hdrincl", Korva::IpProtocolNumber(253), left());
  included->optionsIs(ipSocketOptions({IpSocketOptions::ipHdrIncl}));
  included->ipPktOptionIs(Korva::IpPktOption::ipPktRouterAlert, true);
  included->enabledIs(true);
  char options[40];
  socklen_t length = sizeof options;
  ASSERT_EQ(
      getsockopt(included->fileDesc()->descriptor(), IPPROTO_IP, IP_OPTIONS, options, &length), 0);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(socketOption(*included, IPPROTO_IP, IP_HDRINCL), 1);
}

TEST_F(IpSocketPamNetTest, OwnHeadersReachAnOrdinaryUdpSocket) {
  SocketTest::PythonPeer reader(*right_, udpReader("AF_INET", "10.77.0.2", 5001));
  ASSERT_EQ(reader.line(), "ready");
  Ptr<IpSocketPam> pam = newPam("udp", Korva::ipProtoUdp, left());
  pam->optionsIs(ipSocketOptions({IpSocketOptions::ipHdrIncl}));
  pam->enabledIs(true);
  pam->txDstIpAddrIs(IpGenAddr(IpAddr(10, 77, 0, 2)));
  pam->txPktIs(udpDatagram(IpAddr(10, 77, 0, 1), IpAddr(10, 77, 0, 2), 5001, "built by hand"));
  EXPECT_EQ(reader.line(), "built by hand from 10.77.0.1");
}

TEST_F(IpSocketPamNetTest, ImposedSourceAndInterfaceAndAnUnknownInterfaceName) {
  ASSERT_TRUE(left_->ip("addr add 10.77.0.11/24 dev kvl"));
  Ptr<IpSocketPam> receiverPam = newPam("rx", Korva::IpProtocolNumber(253), right());
  receiverPam->enabledIs(true);
  Receiver receiver(receiverPam.get());
  Ptr<IpSocketPam> pam = newPam("tx", Korva::IpProtocolNumber(253), left());
  pam->enabledIs(true);
  pam->txDstIpAddrIs(IpGenAddr(IpAddr(10, 77, 0, 2)));
  pam->txSrcIpAddrIs(IpGenAddr(IpAddr(10, 77, 0, 11)));
  pam->txIfNameIs("kvl");
  pam->txPktIs(packetOf("from 11"));
  EXPECT_EQ(pam->txIfIndex(), leftIndex_);
  ASSERT_EQ(receiver.waitFor([](const Arrival&) { return true; }), 0);
  EXPECT_EQ(receiver.arrivals[0].src, IpGenAddr(IpAddr(10, 77, 0, 11)));

  Mox::TraceCapture capture;
  Mox::traceConfigIs("IpSocketPam");
  pam->txIfNameIs("nosuch0");
  pam->txPktIs(packetOf("still sent"));
  Mox::traceConfigIs("");
  EXPECT_TRUE(capture.contains("Invalid txIfName supplied."));
  EXPECT_EQ(pam->txIfIndex(), 0u);
  EXPECT_EQ(receiver.waitFor([](const Arrival& a) { return a.bytes.ends_with("still sent"); }), 1);
  EXPECT_EQ(pam->txPktCount(), 2u);
  EXPECT_EQ(pam->txErrors(), 0u);
}

TEST_F(IpSocketPamNetTest, OptionsReadBackAfterEnableAndAfterLiveChanges) {
  Ptr<IpSocketPam> pam = newPam("opts", Korva::IpProtocolNumber(253), left());
  pam->optionsIs(ipSocketOptions({IpSocketOptions::ipPktInfo, IpSocketOptions::ipRecvTTL,
                                  IpSocketOptions::ipRcvBuf, IpSocketOptions::ipPriority}));
  pam->txTOSIs(Korva::IpDscp(0xb8));
  pam->txTTLIs(Korva::IpTtl(9));
  pam->rxBufIs(1 << 20);
  pam->priorityIs(5);
  pam->enabledIs(true);
  expectOptions(*pam, {{IPPROTO_IP, IP_MULTICAST_LOOP, 0},
                       {IPPROTO_IP, IP_PKTINFO, 1},
                       {IPPROTO_IP, IP_RECVTTL, 1},
                       {IPPROTO_IP, IP_RECVTOS, 0},
                       {IPPROTO_IP, IP_TOS, 0xb8},
                       {IPPROTO_IP, IP_TTL, 9},
                       {SOL_SOCKET, SO_PRIORITY, 5},
                       {SOL_SOCKET, SO_RCVBUF, 2 << 20}});  // the kernel doubles what it is given

  pam->optionsIs(pam->options() ^
                 ipSocketOptions({IpSocketOptions::ipMulticastLoop, IpSocketOptions::ipRecvTOS,
                                  IpSocketOptions::ipPktInfo, IpSocketOptions::ipPriority}));
  pam->txTOSIs(Korva::IpDscp(0x20));
  pam->txTTLIs(Korva::IpTtl(17));
  expectOptions(*pam, {{IPPROTO_IP, IP_MULTICAST_LOOP, 1},
                       {IPPROTO_IP, IP_PKTINFO, 0},
                       {IPPROTO_IP, IP_RECVTOS, 1},
                       {IPPROTO_IP, IP_TOS, 0x20},
                       {IPPROTO_IP, IP_TTL, 17},
                       {SOL_SOCKET, SO_PRIORITY, 0}});
}

// --- set-up failures and the counting rules, in one namespace ---

using IpSocketPamLocalTest = SocketTest::NamespaceTest;

TEST_F(IpSocketPamLocalTest, FailedSetUpNamesTheStepAndLeavesNothingOpen) {
  struct Case {
    const char* what;
    Korva::IpProtocolNumber protocol;
    Mox::U32 options;
    bool badFilter;
    bool missingNamespace;
    int error;
    const char* message;
  };
  const Case cases[] = {
      {"empty filter", Korva::ipProtoIcmp, Mox::U32(IpSocketOptions::ipAttachFilter), false, false,
       EINVAL, "SO_ATTACH_FILTER option must be supplied with a valid filter"},
      {"bad filter", Korva::ipProtoIcmp, Mox::U32(IpSocketOptions::ipAttachFilter), true, false,
       EINVAL, "setsockopt(SO_ATTACH_FILTER)"},
      // The kernel keeps Router Alert delivery away from the send-only protocol.
      {"router alert", Korva::IpProtocolNumber(IPPROTO_RAW),
       Mox::U32(IpSocketOptions::ipRouterAlert), false, false, EINVAL,
       "setsockopt(IP_ROUTER_ALERT)"},
      {"no namespace", Korva::ipProtoIcmp, 0, false, true, ENOENT, "socket"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int descriptors = SocketTest::openDescriptorCount();
    Ptr<IpSocketPam> pam =
        newPam("bad", c.protocol, c.missingNamespace ? ns_->name() + "-missing" : ns_->name());
    pam->optionsIs(c.options | Mox::U32(IpSocketOptions::ipPktInfo));
    if (c.badFilter) pam->rxFilterIs(0, Korva::IpFilter(0xffff, 0, 0, 0));
    SocketTest::expectErrnoFailure([&] { pam->enabledIs(true); }, c.error, c.message);
    EXPECT_FALSE(pam->enabled());
    EXPECT_FALSE(pam->fileDesc());
    EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
  }
}

TEST_F(IpSocketPamLocalTest, AReadThatFindsNothingCountsOneReceiveError) {
  Ptr<IpSocketPam> pam = newPam("idle", Korva::IpProtocolNumber(253), ns_->name());
  pam->enabledIs(true);
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_EQ(pam->rxPktCount(), 0u);
  const int descriptors = SocketTest::openDescriptorCount();
  pam->enabledIs(false);
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors - 1);
}

TEST(IpSocketPamDeathTest, SendingOnADisabledPamIsAnAssertion) {
  Ptr<IpSocketPam> pam = newPam("off", Korva::ipProtoIcmp, "");
  EXPECT_DEATH(pam->txPktIs(packetOf("x")), "Assertion \"enabled\\(\\)\" failed");
}

// --- IPv6 ---

class Ip6SocketPamNetTest : public SocketTest::VethPairTest {};

TEST_F(Ip6SocketPamNetTest, PingArrivesWithItsMetadata) {
  Ptr<Korva::Ip6SocketPam> pam =
      Korva::ip6SocketPamFactory("icmp6", Korva::ipProtoIcmpv6, Korva::NamespaceName(right()));
  pam->optionsIs(ipSocketOptions(
      {IpSocketOptions::ipPktInfo, IpSocketOptions::ipRecvTTL, IpSocketOptions::ipRecvTOS}));
  pam->enabledIs(true);
  Receiver receiver(pam.get());
  // What counts is the request's arrival, not ping's verdict: the first one waits for
  // neighbour discovery on a link that has just come up.
  left_->exec("ping -6 -c 1 -W 5 -t 33 -Q 0x20 fd77::2");
  // Neighbour discovery arrives on the same socket; the echo request is type 128.
  const int request =
      receiver.waitFor([](const Arrival& a) { return Mox::U8(a.bytes.at(0)) == 128; });
  ASSERT_GE(request, 0);
  const Arrival& arrival = receiver.arrivals[size_t(request)];
  EXPECT_EQ(arrival.src, IpGenAddr(Ip6Addr("fd77::1")));
  EXPECT_EQ(arrival.dst, IpGenAddr(Ip6Addr("fd77::2")));
  EXPECT_EQ(arrival.ifIndex, rightIndex_);
  EXPECT_EQ(arrival.ttl, 33);
  EXPECT_EQ(arrival.tos, 0x20);
}

TEST_F(Ip6SocketPamNetTest, OptionsReadBackAfterEnableAndAfterLiveChanges) {
  Ptr<Korva::Ip6SocketPam> pam = Korva::ip6SocketPamFactory("opts6", Korva::IpProtocolNumber(253),
                                                            Korva::NamespaceName(left()));
  pam->optionsIs(ipSocketOptions({IpSocketOptions::ipPktInfo, IpSocketOptions::ipPriority}));
  pam->txTOSIs(Korva::IpDscp(0xb8));
  pam->txTTLIs(Korva::IpTtl(9));
  pam->priorityIs(3);
  pam->enabledIs(true);
  expectOptions(*pam, {{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0},
                       {IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
                       {IPPROTO_IPV6, IPV6_TCLASS, 0xb8},
                       {IPPROTO_IPV6, IPV6_UNICAST_HOPS, 9},
                       {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 9},
                       {SOL_SOCKET, SO_PRIORITY, 3}});
  pam->optionsIs(pam->options() ^
                 ipSocketOptions({IpSocketOptions::ipMulticastLoop, IpSocketOptions::ipRecvTTL}));
  pam->txTOSIs(Korva::IpDscp(0x20));
  pam->txTTLIs(Korva::IpTtl(200));
  expectOptions(*pam, {{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1},
                       {IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1},
                       {IPPROTO_IPV6, IPV6_TCLASS, 0x20},
                       {IPPROTO_IPV6, IPV6_UNICAST_HOPS, 200},
                       {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 200}});
}

TEST_F(Ip6SocketPamNetTest, HeaderIncludedPamSendsOurHeadersThroughItsTransmitPam) {
  SocketTest::PythonPeer reader(*right_, udpReader("AF_INET6", "fd77::2", 5002));
  ASSERT_EQ(reader.line(), "ready");
  Ptr<Korva::Ip6HdrInclSocketPam> pam =
      Korva::ip6HdrInclSocketPamFactory("udp6", Korva::ipProtoUdp, Korva::NamespaceName(left()));
  ASSERT_TRUE(pam->txPam());
  // Receive bits stay with the receiving socket; the sending one takes the rest.
  pam->optionsIs(ipSocketOptions(
      {IpSocketOptions::ipRecvTTL, IpSocketOptions::ipPktInfo, IpSocketOptions::ipMulticastLoop}));
  pam->enabledIs(true);
  EXPECT_TRUE(pam->txPam()->enabled());
  EXPECT_EQ(pam->txPam()->options(), Mox::U32(IpSocketOptions::ipMulticastLoop));
  pam->txPktIs(udpDatagram(Ip6Addr("fd77::1"), Ip6Addr("fd77::2"), 5002, "built by hand"));
  EXPECT_EQ(reader.line(), "built by hand from fd77::1");
  EXPECT_EQ(pam->txPktCount(), 1u);

  pam->txPktIs(packetOf("short"));  // no room for an IPv6 header
  EXPECT_EQ(pam->txErrors(), 1u);
  pam->enabledIs(false);
  EXPECT_FALSE(pam->txPam()->enabled());
}

using Ip6SocketPamLocalTest = SocketTest::NamespaceTest;

TEST_F(Ip6SocketPamLocalTest, AFailedEnableClosesBothSockets) {
  const int descriptors = SocketTest::openDescriptorCount();
  Ptr<Korva::Ip6HdrInclSocketPam> pam = Korva::ip6HdrInclSocketPamFactory(
      "nofilter", Korva::ipProtoIcmpv6, Korva::NamespaceName(ns_->name()));
  pam->optionsIs(ipSocketOptions({IpSocketOptions::ipAttachFilter}));
  SocketTest::expectErrnoFailure([&] { pam->enabledIs(true); }, EINVAL,
                                 "SO_ATTACH_FILTER option must be supplied with a valid filter");
  EXPECT_FALSE(pam->enabled());
  EXPECT_FALSE(pam->txPam()->enabled());
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
}

}  // namespace
