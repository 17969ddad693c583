#include <Korva/NetnsUtils.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Trace.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Korva {

namespace {

Mox::TraceHandle trace("UdpPam");

// Room for every control message a datagram can carry here: packet information, TTL or
// hop limit, and TOS or traffic class.
constexpr size_t kControlBytes = 128;

union SocketAddress {
  sockaddr base;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

const char* modeText(UdpPam::Mode mode) {
  switch (mode) {
    case UdpPam::Mode::disabled:
      return "disabled";
    case UdpPam::Mode::server:
      return "server";
    case UdpPam::Mode::client:
      return "client";
  }
  return "?";
}

int descriptorOf(const UdpPam& pam) {
  return pam.fileDesc() ? pam.fileDesc()->descriptor() : -1;
}

// One socket option set at creation: where it lives, and the words of its failure.
struct OptionStep {
  int level;
  int option;
  const char* failureTrace;
  const char* step;
};

constexpr const char* kOptionFailure = "Failed to set socket option, errno: ";

// Packet information, TTL and TOS of each received datagram.
constexpr OptionStep kIpv4ReceiveInfo[] = {
    {IPPROTO_IP, IP_PKTINFO, kOptionFailure, "setsockopt(IP_PKTINFO)"},
    {IPPROTO_IP, IP_RECVTTL, kOptionFailure, "setsockopt(IP_RECVTTL)"},
    {IPPROTO_IP, IP_RECVTOS, kOptionFailure, "setsockopt(IP_RECVTOS)"},
};
constexpr OptionStep kIpv6ReceiveInfo[] = {
    {IPPROTO_IPV6, IPV6_RECVPKTINFO, kOptionFailure, "setsockopt(IPV6_RECVPKTINFO)"},
    {IPPROTO_IPV6, IPV6_RECVHOPLIMIT, kOptionFailure, "setsockopt(IPV6_RECVHOPLIMIT)"},
    {IPPROTO_IPV6, IPV6_RECVTCLASS, kOptionFailure, "setsockopt(IPV6_RECVTCLASS)"},
};
constexpr OptionStep kBroadcast{
    SOL_SOCKET, SO_BROADCAST, "Failed to set broadcast flag, errno: ", "setsockopt(SO_BROADCAST)"};
constexpr OptionStep kReuseAddr{
    SOL_SOCKET, SO_REUSEADDR,
    "Failed to set SO_REUSEADDR flag, errno: ", "setsockopt(SO_REUSEADDR)"};
constexpr const char* kLoopFailure = "Failed to set IP_MULTICAST_LOOP flag, errno: ";
constexpr OptionStep kIpv4MulticastLoop{IPPROTO_IP, IP_MULTICAST_LOOP, kLoopFailure,
                                        "setsockopt(IP_MULTICAST_LOOP)"};
constexpr OptionStep kIpv6MulticastLoop{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, kLoopFailure,
                                        "setsockopt(IP_MULTICAST_LOOP)"};
constexpr OptionStep kIpv4Tos{IPPROTO_IP, IP_TOS,
                              "Failed to set IP_TOS, errno: ", "setsockopt(IP_TOS)"};
constexpr OptionStep kIpv6Tos{IPPROTO_IPV6, IPV6_TCLASS,
                              "Failed to set IP_TOS, errno: ", "setsockopt(IP_TOS)"};

// Sets one option (an int, or a single byte where the kernel takes one); a failure is
// traced and thrown with the step's name.
template <class Value>
void setSocketOption(const UdpPam& pam, int fd, const OptionStep& step, Value value) {
  if (setsockopt(fd, step.level, step.option, &value, sizeof value) == 0) return;
  const int error = errno;
  MOX_TRACE(trace, 0, pam.name() << ": " << step.failureTrace << error);
  throw Mox::ErrnoException(error, step.step);
}

SocketAddress ipv4Address(IpAddr address, U16 port) {
  SocketAddress socketAddress{};
  socketAddress.v4.sin_family = AF_INET;
  socketAddress.v4.sin_port = htons(port);
  socketAddress.v4.sin_addr.s_addr = address.valueNbo();
  return socketAddress;
}

SocketAddress ipv6Address(const Ip6Addr& address, U16 port, U32 scope) {
  SocketAddress socketAddress{};
  socketAddress.v6.sin6_family = AF_INET6;
  socketAddress.v6.sin6_port = htons(port);
  address.copyToBuffer(socketAddress.v6.sin6_addr.s6_addr);
  socketAddress.v6.sin6_scope_id = scope;
  return socketAddress;
}

Ip6Addr ip6AddrOf(const in6_addr& address) {
  Ip6Addr ip6Addr;
  ip6Addr.copyFromBuffer(address.s6_addr);
  return ip6Addr;
}

// The index of a device in the socket's own namespace (which need not be the caller's); 0
// with errno set when there is no such device.
int interfaceIndexAt(int fd, const Mox::String8& devName) {
  ifreq request{};
  std::strncpy(request.ifr_name, devName.c_str(), IFNAMSIZ - 1);
  if (ioctl(fd, SIOCGIFINDEX, &request) != 0) return 0;
  return request.ifr_ifindex;
}

// What the control messages of one datagram said; TTL and TOS are -1 when absent.
struct ReceivedInfo {
  U32 ifIndex = 0;
  IpAddr dst;
  Ip6Addr dst6;
  S32 ttl = -1;
  S32 tos = -1;
};

ReceivedInfo parseControl(msghdr& msg) {
  ReceivedInfo info;
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    const void* data = CMSG_DATA(cmsg);
    if (cmsg->cmsg_level == IPPROTO_IP) {
      if (cmsg->cmsg_type == IP_PKTINFO) {
        in_pktinfo pktInfo;
        std::memcpy(&pktInfo, data, sizeof pktInfo);
        info.ifIndex = U32(pktInfo.ipi_ifindex);
        info.dst = IpAddr(pktInfo.ipi_addr.s_addr);
      } else if (cmsg->cmsg_type == IP_TTL) {
        std::memcpy(&info.ttl, data, sizeof info.ttl);
      } else if (cmsg->cmsg_type == IP_TOS) {
        info.tos = *static_cast<const U8*>(data);
      }
    } else if (cmsg->cmsg_level == IPPROTO_IPV6) {
      if (cmsg->cmsg_type == IPV6_PKTINFO) {
        in6_pktinfo pktInfo;
        std::memcpy(&pktInfo, data, sizeof pktInfo);
        info.ifIndex = pktInfo.ipi6_ifindex;
        info.dst6 = ip6AddrOf(pktInfo.ipi6_addr);
      } else if (cmsg->cmsg_type == IPV6_HOPLIMIT) {
        std::memcpy(&info.ttl, data, sizeof info.ttl);
      } else if (cmsg->cmsg_type == IPV6_TCLASS) {
        std::memcpy(&info.tos, data, sizeof info.tos);
      }
    }
  }
  return info;
}

}  // namespace

UdpPam::~UdpPam() {
  // The reactor keeps a plain pointer back to this Pam: it goes first.
  fdSmDel();
}

void UdpPam::handleMode() {
  MOX_TRACE(trace, 1, name() << ": mode is: " << modeText(mode()));
  renewSocket();
}

void UdpPam::handleNetNs() {
  MOX_TRACE(trace, 1, name() << ": network namespace is: " << netNs().value());
  if (mode() != Mode::disabled) renewSocket();
}

// A failure leaves the Pam in its mode without a socket, so a later change of namespace or
// mode tries again.
void UdpPam::renewSocket() {
  doDelSocket();
  if (mode() == Mode::disabled) return;
  try {
    doNewSocket();
  } catch (...) {
    doDelSocket();
    throw;
  }
}

void UdpPam::doNewSocket() {
  const bool v6 = ipv6En();
  const int fd = socketAt(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0, netNs().value());
  if (fd < 0) {
    const int error = errno;
    MOX_TRACE(trace, 0, name() << ": Failed to open socket, errno: " << error);
    throw Mox::ErrnoException(error, "socket");
  }
  try {
    // Arrival interface and destination for clients and servers alike.
    for (const OptionStep& step : v6 ? kIpv6ReceiveInfo : kIpv4ReceiveInfo) {
      setSocketOption(*this, fd, step, 1);
    }
    setSocketOption(*this, fd, kBroadcast, 1);
    // Loopback of our own multicast stays on only when asked for.
    if (!enableIpMulticastLoop()) {
      setSocketOption(*this, fd, v6 ? kIpv6MulticastLoop : kIpv4MulticastLoop, 0);
    }
    if (txTos().value() != 0) {
      MOX_TRACE(trace, 2, name() << ": TOS=" << unsigned(txTos().value()));
      if (v6) {
        setSocketOption(*this, fd, kIpv6Tos, int(txTos().value()));
      } else {
        setSocketOption(*this, fd, kIpv4Tos, txTos().value());
      }
    }
    setSocketOption(*this, fd, kReuseAddr, 1);
  } catch (...) {
    close(fd);
    throw;
  }
  MOX_TRACE(trace, 1, name() << ": Socket fd is " << fd << ", mode is " << modeText(mode()));
  // From here on the descriptor entity owns the socket (and closes it on a failed set-up).
  fileDescIs(Mox::make<Mox::FileDescriptor>(name(), fd));
  fdSmIs(PamFdSmIs(Mox::ActivityConfig::current(), fileDesc(), this));
  MOX_TRACE(trace, 1, name() << ": Done setting file desc ");
  if (mode() == Mode::server) doBind();
}

void UdpPam::doDelSocket() {
  fdSmDel();
  fileDescDel();
  socketConnectedIs(false);
  rxPortLocalDel();
}

void UdpPam::doBind() {
  const SocketAddress local =
      ipv6En() ? ipv6Address(rxIp6Addr(), rxPort(), 0) : ipv4Address(rxIpAddr(), rxPort());
  const socklen_t length = ipv6En() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  MOX_TRACE(trace, 1,
            name() << ": Binding socket to "
                   << (ipv6En() ? rxIp6Addr().stringValue() : rxIpAddr().stringValue()) << " port "
                   << rxPort());
  if (bind(descriptorOf(*this), &local.base, length) != 0) {
    const int error = errno;
    MOX_TRACE(trace, 0, name() << ": bind failed with " << error);
    throw Mox::ErrnoException(error, "bind");
  }
  noteLocalPort();
}

void UdpPam::noteLocalPort() {
  SocketAddress local{};
  socklen_t length = sizeof local;
  if (getsockname(descriptorOf(*this), &local.base, &length) != 0) return;
  // The port sits at the same place in both families.
  rxPortLocalIs(ntohs(local.v4.sin_port));
}

bool UdpPam::doConnect() {
  if (mode() != Mode::client || socketConnected()) return socketConnected();
  SocketAddress peer;
  socklen_t length;
  if (ipv6En()) {
    if (!txDstIp6Addr().isUnicast()) {
      MOX_TRACE(trace, 0, name() << ": Ip6Addr " << txDstIp6Addr() << " not a unicast address");
      return false;
    }
    peer = ipv6Address(txDstIp6Addr(), txPort(), txIfIndex());
    length = sizeof(sockaddr_in6);
  } else {
    if (!txDstIpAddr().isUnicast()) {
      MOX_TRACE(trace, 0, name() << ": IpAddr " << txDstIpAddr() << " not a unicast address");
      return false;
    }
    peer = ipv4Address(txDstIpAddr(), txPort());
    length = sizeof(sockaddr_in);
  }
  MOX_TRACE(trace, 1,
            name() << ": Connecting to "
                   << (ipv6En() ? txDstIp6Addr().stringValue() : txDstIpAddr().stringValue())
                   << " port " << txPort());
  if (connect(descriptorOf(*this), &peer.base, length) != 0) {
    const int error = errno;
    MOX_TRACE(trace, 0,
              name() << ": connect failed with " << error << " (" << strerror(error) << ")");
    return false;
  }
  socketConnectedIs(true);
  noteLocalPort();
  return true;
}

void UdpPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT_TEXT(mode() != Mode::disabled, "mode() != disabled()");
  MOX_ASSERT_TEXT(txPort() != U16(), "txPort() != U16()");
  MOX_ASSERT(pkt);
  MOX_TRACE(trace, 9, name() << ": Sending pkt of size " << pkt->bytes());
  const bool v6 = ipv6En();
  msghdr msg{};
  SocketAddress destination;
  if (mode() == Mode::client) {
    if (!doConnect()) return;
  } else if (v6) {
    MOX_ASSERT(!txDstIp6Addr().isZero());
    destination = ipv6Address(txDstIp6Addr(), txPort(), txIfIndex());
    msg.msg_name = &destination;
    msg.msg_namelen = sizeof(sockaddr_in6);
  } else {
    MOX_ASSERT_TEXT(txDstIpAddr() != IpAddr(), "txDstIpAddr() != Korva::IpAddr::ipAddrZero()");
    destination = ipv4Address(txDstIpAddr(), txPort());
    msg.msg_name = &destination;
    msg.msg_namelen = sizeof(sockaddr_in);
  }
  msg.msg_iov = const_cast<iovec*>(pkt->iovecs());
  msg.msg_iovlen = pkt->iovecCount();

  alignas(cmsghdr) char control[kControlBytes];
  if (v6 ? (!txSrcIp6Addr().isZero() || txIfIndex() != 0)
         : (txSrcIpAddr() != IpAddr() || txIfIndex() != 0)) {
    msg.msg_control = control;
    msg.msg_controllen = v6 ? CMSG_SPACE(sizeof(in6_pktinfo)) : CMSG_SPACE(sizeof(in_pktinfo));
    std::memset(control, 0, msg.msg_controllen);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    if (v6) {
      MOX_TRACE(trace, 9,
                name() << ": Sending pkt to ifindex " << txIfIndex() << " from " << txSrcIp6Addr());
      cmsg->cmsg_level = IPPROTO_IPV6;
      cmsg->cmsg_type = IPV6_PKTINFO;
      cmsg->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
      in6_pktinfo pktInfo{};
      txSrcIp6Addr().copyToBuffer(pktInfo.ipi6_addr.s6_addr);
      pktInfo.ipi6_ifindex = txIfIndex();
      std::memcpy(CMSG_DATA(cmsg), &pktInfo, sizeof pktInfo);
    } else {
      MOX_TRACE(trace, 9, name() << ": Sending pkt with src ip " << txSrcIpAddr());
      cmsg->cmsg_level = IPPROTO_IP;
      cmsg->cmsg_type = IP_PKTINFO;
      cmsg->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
      // IPv4 packet information carries the source only: routing picks the interface.
      in_pktinfo pktInfo{};
      pktInfo.ipi_spec_dst.s_addr = txSrcIpAddr().valueNbo();
      std::memcpy(CMSG_DATA(cmsg), &pktInfo, sizeof pktInfo);
    }
  }

  if (sendmsg(descriptorOf(*this), &msg, 0) < 0) {
    const int error = errno;
    MOX_TRACE(trace, 3,
              name() << ": sendmsg failed with " << error << " (" << strerror(error) << ")");
    // The peer's refusal arrives with a later send; the datagram itself did leave. No
    // transmit error is counted here, deliberately.
    if (error == ECONNREFUSED) txPktsInc(1);
    return;
  }
  txPktsInc(1);
}

void UdpPam::doGetRxPkt() {
  Pkt::Manager* manager = globalPktManager();
  Mox::Ptr<Pkt> pkt = manager->newPkt();
  const U32 capacity = maxRxPktData();
  if (pkt->maxSharedData() < capacity) pkt->sharedBufferIs(manager->newSharedBuffer(capacity));
  MOX_ASSERT_TEXT(pkt->maxSharedData() >= capacity, "maxSize >= maxRxPktData()");
  // The datagram lands at the end of the buffer: what is left in front is head room.
  iovec iov{pkt->newSharedHeadData(capacity), capacity};
  SocketAddress source;
  alignas(cmsghdr) char control[kControlBytes];
  msghdr msg{};
  msg.msg_name = &source;
  msg.msg_namelen = sizeof source;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;

  const ssize_t received = recvmsg(descriptorOf(*this), &msg, 0);
  if (received < 0) {
    const int error = errno;
    if (error != EAGAIN) {
      MOX_TRACE(trace, 3,
                name() << ": recvmsg failed with " << error << " (" << strerror(error) << ")");
    }
    return;
  }
  MOX_TRACE(trace, 9, name() << ": Received packet of size " << received);
  if (msg.msg_flags & MSG_TRUNC) {
    MOX_TRACE(trace, 3, name() << ": Discarding truncated packet");
    return;
  }
  const ReceivedInfo info = parseControl(msg);
  if (source.base.sa_family == AF_INET6) {
    rxSrcIp6AddrIs(ip6AddrOf(source.v6.sin6_addr));
    rxDstIp6AddrIs(info.dst6);
  } else {
    rxSrcIpAddrIs(IpAddr(source.v4.sin_addr.s_addr));
    rxDstIpAddrIs(info.dst);
  }
  rxSrcPortIs(ntohs(source.v4.sin_port));
  rxIfIndexIs(info.ifIndex);
  rxTTLIs(info.ttl);
  rxTOSIs(info.tos);
  if (info.ifIndex == 0) MOX_TRACE(trace, 3, name() << ": recvmsg failed to retrieve ifindex");
  MOX_TRACE(trace, 9,
            name() << ": Received from ifindex " << info.ifIndex << " with src IP "
                   << (ipv6En() ? rxSrcIp6Addr().stringValue() : rxSrcIpAddr().stringValue())
                   << " and dest IP "
                   << (ipv6En() ? info.dst6.stringValue() : info.dst.stringValue()));
  pkt->delSharedTailData(capacity - U32(received));
  rxPktsInc(1);
  rxPktHolderIs(pkt);
}

void UdpPam::handleMcastGroup(const Mox::String8& devName, const Ip6Addr& group, bool join) {
  ipv6_mreq request{};
  group.copyToBuffer(request.ipv6mr_multiaddr.s6_addr);
  const int fd = descriptorOf(*this);
  request.ipv6mr_interface = unsigned(interfaceIndexAt(fd, devName));
  MOX_TRACE(trace, 1,
            name() << ": " << (join ? "joining " : "leaving ") << group << " on " << devName);
  if (request.ipv6mr_interface == 0 ||
      setsockopt(fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &request,
                 sizeof request) != 0) {
    const int error = errno;
    MOX_TRACE(trace, 0, name() << ": multicast group change failed with " << error);
    throw Mox::ErrnoException(error, "setsockopt(IPV6_JOIN_GROUP|IPV6_LEAVE_GROUP)");
  }
}

void UdpPam::handleV4McastGroup(const Mox::String8& devName, const IpAddr& group, bool join) {
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = group.valueNbo();
  const int fd = descriptorOf(*this);
  request.imr_ifindex = interfaceIndexAt(fd, devName);
  MOX_TRACE(trace, 1,
            name() << ": " << (join ? "joining " : "leaving ") << group << " on " << devName);
  if (request.imr_ifindex == 0 ||
      setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                 sizeof request) != 0) {
    const int error = errno;
    MOX_TRACE(trace, 0, name() << ": multicast group change failed with " << error);
    throw Mox::ErrnoException(error, "setsockopt(IP_ADD_MEMBERSHIP|IP_DROP_MEMBERSHIP)");
  }
}

void UdpPam::incSockBufSize(U32 bytes) {
  const int fd = descriptorOf(*this);
  const int wanted = int(bytes);
  // Forcing passes the system-wide limit when the agent may; otherwise ask within it.
  for (auto [option, forced] :
       {std::pair{SO_RCVBUF, SO_RCVBUFFORCE}, {SO_SNDBUF, SO_SNDBUFFORCE}}) {
    int current = 0;
    socklen_t length = sizeof current;
    if (getsockopt(fd, SOL_SOCKET, option, &current, &length) == 0 && current >= wanted) continue;
    if (setsockopt(fd, SOL_SOCKET, forced, &wanted, sizeof wanted) == 0 ||
        setsockopt(fd, SOL_SOCKET, option, &wanted, sizeof wanted) == 0) {
      continue;
    }
    MOX_TRACE(trace, 0, name() << ": Error increasing socket buffer size, errno: " << errno);
  }
}

void UdpPam::assertNotConnected() const {
  MOX_ASSERT_TEXT(!socketConnected(), "!socketConnected()");
}

}  // namespace Korva
