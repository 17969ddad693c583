#include <Korva/Ip6SocketPam.h>

#include <netinet/in.h>

namespace Korva {

namespace {

Mox::TraceHandle trace("Ip6SocketPam");

// Two messages keep their IPv4 wording: operators search logs for them as they are.
constexpr IpOptionStep receiveSteps[] = {
    {IpSocketOptions::ipPktInfo, IPPROTO_IPV6, IPV6_RECVPKTINFO, "setsockopt(IPV6_RECVPKTINFO)"},
    {IpSocketOptions::ipFreeBind, IPPROTO_IPV6, IPV6_FREEBIND, "setsockopt(IPV6_FREEBIND)"},
    {IpSocketOptions::ipMulticastLoop, IPPROTO_IPV6, IPV6_MULTICAST_LOOP,
     "setsockopt(IPV6_MULTICAST_LOOP)", true},
    {IpSocketOptions::ipRecvErr, IPPROTO_IPV6, IPV6_RECVERR, "setsockopt(IP_RECVERR)"},
    {IpSocketOptions::ipRecvOrigDstAddr, IPPROTO_IPV6, IPV6_RECVORIGDSTADDR,
     "setsockopt(IPV6_RECVORIGDSTADDR)"},
    {IpSocketOptions::ipRecvTOS, IPPROTO_IPV6, IPV6_RECVTCLASS, "setsockopt(IPV6_RECVTCLASS)"},
    {IpSocketOptions::ipRecvTTL, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, "setsockopt(IPV6_HOPLIMIT)"},
    // Router Alert takes the option value to deliver; -1 stops the delivery.
    {IpSocketOptions::ipRouterAlert, IPPROTO_IPV6, IPV6_ROUTER_ALERT,
     "setsockopt(IPV6_ROUTER_ALERT)", false, -1},
};
constexpr int hopLimitOptions[] = {IPV6_UNICAST_HOPS, IPV6_MULTICAST_HOPS};

const IpSocketFamily ipv6Family{
    AF_INET6,
    "Ip6SocketPam",
    trace,
    receiveSteps,
    {IpSocketOptions::ipTransparent, IPPROTO_IPV6, IPV6_TRANSPARENT,
     "setsockopt(IPV6_TRANSPARENT)"},
    {IpSocketOptions::none, IPPROTO_IPV6, IPV6_TCLASS, "setsockopt(IPV6_TCLASS)"},
    hopLimitOptions,
    "setsockopt(IPV6_UNICAST/MULTICAST_HOP)",
};

}  // namespace

const IpSocketFamily* Ip6SocketPam::socketFamily() const {
  return &ipv6Family;
}

}  // namespace Korva
