#include <Korva/Ip6Hdr.h>
#include <Korva/Ip6HdrInclSocketPam.h>
#include <Korva/Ip6SocketPam.h>
#include <Korva/UdpHdr.h>
#include <Mox/Exception.h>

#include <netinet/in.h>

#include <gtest/gtest.h>

#include <string>

#include "IpPamTestUtil.h"
#include "SocketTestUtil.h"

namespace {

using IpPamTest::Arrival;
using IpPamTest::packetOf;
using IpPamTest::Receiver;
using IpPamTest::socketOption;
using Korva::Ip6Addr;
using Korva::IpGenAddr;
using Korva::IpSocketOptions;
using Korva::ipSocketOptions;
using Mox::Ptr;

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
  IpPamTest::expectOptions(*pam, {{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0},
                                  {IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
                                  {IPPROTO_IPV6, IPV6_TCLASS, 0xb8},
                                  {IPPROTO_IPV6, IPV6_UNICAST_HOPS, 9},
                                  {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 9},
                                  {SOL_SOCKET, SO_PRIORITY, 3}});
  pam->optionsIs(pam->options() ^
                 ipSocketOptions({IpSocketOptions::ipMulticastLoop, IpSocketOptions::ipRecvTTL}));
  pam->txTOSIs(Korva::IpDscp(0x20));
  pam->txTTLIs(Korva::IpTtl(200));
  IpPamTest::expectOptions(*pam, {{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1},
                                  {IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1},
                                  {IPPROTO_IPV6, IPV6_TCLASS, 0x20},
                                  {IPPROTO_IPV6, IPV6_UNICAST_HOPS, 200},
                                  {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 200}});
}

// A UDP datagram whose IPv6 and UDP headers we build, checksum included.
Ptr<Korva::Pkt> udpDatagram(const Ip6Addr& src, const Ip6Addr& dst, Mox::U16 port,
                            const std::string& payload) {
  Ptr<Korva::Pkt> pkt = IpPamTest::udpDatagram(src, dst, port, payload);
  auto* ip = new (pkt->newSharedHeadData(sizeof(Korva::Ip6Hdr))) Korva::Ip6Hdr;
  ip->versionIs(6);
  ip->payloadLen.valueIs(Mox::U16(pkt->bytes() - sizeof(Korva::Ip6Hdr)));
  ip->nextHeader.valueIs(Korva::ipProtoUdp);
  ip->hopLimit.valueIs(64);
  ip->srcAddrIs(src);
  ip->dstAddrIs(dst);
  return pkt;
}

TEST_F(Ip6SocketPamNetTest, HeaderIncludedPamSendsOurHeadersThroughItsTransmitPam) {
  SocketTest::PythonPeer reader(*right_, IpPamTest::udpReader("AF_INET6", "fd77::2", 5002));
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

using Ip6SocketPamLocalTest = IpPamTest::NamespaceTest;

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
