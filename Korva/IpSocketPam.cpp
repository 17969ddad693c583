#include <Korva/IpSocketPam.h>

#include <netinet/in.h>

#include <cerrno>

namespace Korva {

namespace {

Mox::TraceHandle trace("IpSocketPam");

constexpr IpOptionStep receiveSteps[] = {
    {IpSocketOptions::ipPktInfo, IPPROTO_IP, IP_PKTINFO, "setsockopt(IP_PKTINFO)"},
    {IpSocketOptions::ipFreeBind, IPPROTO_IP, IP_FREEBIND, "setsockopt(IP_FREEBIND)"},
    {IpSocketOptions::ipMulticastLoop, IPPROTO_IP, IP_MULTICAST_LOOP,
     "setsockopt(IP_MULTICAST_LOOP)", true},
    {IpSocketOptions::ipRecvErr, IPPROTO_IP, IP_RECVERR, "setsockopt(IP_RECVERR)"},
    {IpSocketOptions::ipRecvOrigDstAddr, IPPROTO_IP, IP_RECVORIGDSTADDR,
     "setsockopt(IP_RECVORIGDSTADD)"},
    {IpSocketOptions::ipRecvTOS, IPPROTO_IP, IP_RECVTOS, "setsockopt(IP_RECVTOS)"},
    {IpSocketOptions::ipRecvTTL, IPPROTO_IP, IP_RECVTTL, "setsockopt(IP_RECVTTL)"},
    {IpSocketOptions::ipRouterAlert, IPPROTO_IP, IP_ROUTER_ALERT, "setsockopt(IP_ROUTER_ALERT)"},
};
constexpr int ttlOptions[] = {IP_TTL};

const IpSocketFamily ipv4Family{
    AF_INET,
    "IpSocketPam",
    trace,
    receiveSteps,
    {IpSocketOptions::ipTransparent, IPPROTO_IP, IP_TRANSPARENT, "setsockopt(IP_TRANSPARENT)"},
    {IpSocketOptions::none, IPPROTO_IP, IP_TOS, "setsockopt(IP_TOS)"},
    ttlOptions,
    "setsockopt(IP_TTL)",
};

// Router Alert (RFC 2113) as the socket takes it: type and length; the kernel pads the
// option to four bytes with zeros, its value 0.
constexpr unsigned char routerAlertOption[] = {0x94, 0x04};

}  // namespace

const IpSocketFamily* IpSocketPam::socketFamily() const {
  return &ipv4Family;
}

void IpSocketPam::ipPktOptionIs(IpPktOption option, bool value) {
  IpSocketPamBase::ipPktOptionIs(option, value);
  refreshIpPktOptions();
}

void IpSocketPam::ipPktOptionDel(IpPktOption option) {
  IpSocketPamBase::ipPktOptionDel(option);
  refreshIpPktOptions();
}

void IpSocketPam::ipPktOptionDelAll() {
  IpSocketPamBase::ipPktOptionDelAll();
  refreshIpPktOptions();
}

void IpSocketPam::refreshIpPktOptions() {
  if (enabled() && !hasOption(IpSocketOptions::ipHdrIncl)) setIpPktOptions(descriptor());
}

void IpSocketPam::doConfigureHeader(int fd, bool live) {
  const bool included = hasOption(IpSocketOptions::ipHdrIncl);
  if (included || live) {
    setOption(fd, IPPROTO_IP, IP_HDRINCL, included, "setsockopt(IP_HDRINCL)");
  }
  if (!included) setIpPktOptions(fd);
}

void IpSocketPam::setIpPktOptions(int fd) {
  const bool routerAlert = ipPktOption(IpPktOption::ipPktRouterAlert);
  if (setsockopt(fd, IPPROTO_IP, IP_OPTIONS, routerAlertOption,
                 routerAlert ? sizeof routerAlertOption : 0) != 0) {
    MOX_TRACE(trace, 0, name() << ": Error while setting socket option " << errno);
  }
}

}  // namespace Korva
