#include <Korva/NetnsUtils.h>
#include <Korva/SocketUtils.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Trace.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Korva {

namespace {

Mox::TraceHandle trace("UdpPam");

// Room for every control message a datagram can carry here: packet information, TTL or
// hop limit, and TOS or traffic class.
constexpr size_t controlBytes = 128;

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

// One socket option set at creation: where it lives, and the words of its failure.
struct OptionStep {
  int level;
  int option;
  const char* failureTrace;
  const char* step;
};

constexpr const char* optionFailure = "Failed to set socket option, errno: ";

// Packet information, TTL and TOS of each received datagram.
constexpr OptionStep ipv4ReceiveInfo[] = {
    {IPPROTO_IP, IP_PKTINFO, optionFailure, "setsockopt(IP_PKTINFO)"},
    {IPPROTO_IP, IP_RECVTTL, optionFailure, "setsockopt(IP_RECVTTL)"},
    {IPPROTO_IP, IP_RECVTOS, optionFailure, "setsockopt(IP_RECVTOS)"},
};
constexpr OptionStep ipv6ReceiveInfo[] = {
    {IPPROTO_IPV6, IPV6_RECVPKTINFO, optionFailure, "setsockopt(IPV6_RECVPKTINFO)"},
    {IPPROTO_IPV6, IPV6_RECVHOPLIMIT, optionFailure, "setsockopt(IPV6_RECVHOPLIMIT)"},
    {IPPROTO_IPV6, IPV6_RECVTCLASS, optionFailure, "setsockopt(IPV6_RECVTCLASS)"},
};
constexpr OptionStep broadcastStep{
    SOL_SOCKET, SO_BROADCAST, "Failed to set broadcast flag, errno: ", "setsockopt(SO_BROADCAST)"};
constexpr OptionStep reuseAddrStep{
    SOL_SOCKET, SO_REUSEADDR,
    "Failed to set SO_REUSEADDR flag, errno: ", "setsockopt(SO_REUSEADDR)"};
constexpr const char* loopFailure = "Failed to set IP_MULTICAST_LOOP flag, errno: ";
constexpr OptionStep ipv4MulticastLoop{IPPROTO_IP, IP_MULTICAST_LOOP, loopFailure,
                                       "setsockopt(IP_MULTICAST_LOOP)"};
constexpr OptionStep ipv6MulticastLoop{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, loopFailure,
                                       "setsockopt(IP_MULTICAST_LOOP)"};
constexpr OptionStep ipv4Tos{IPPROTO_IP, IP_TOS,
                             "Failed to set IP_TOS, errno: ", "setsockopt(IP_TOS)"};
constexpr OptionStep ipv6Tos{IPPROTO_IPV6, IPV6_TCLASS,
                             "Failed to set IP_TOS, errno: ", "setsockopt(IP_TOS)"};

// A failed option step (`result` non-zero) is traced and thrown with the step's name.
void requireOption(const UdpPam& pam, const OptionStep& step, int result) {
  if (result == 0) return;
  const int error = errno;
  MOX_TRACE(trace, 0, pam.name() << ": " << step.failureTrace << error);
  throw Mox::ErrnoException(error, step.step);
}

void setIntegerOption(const UdpPam& pam, int fd, const OptionStep& step, int value) {
  requireOption(pam, step, setSocketOptionInteger(fd, step.level, step.option, value, false));
}

Ip6Addr ip6AddrOf(const in6_addr& address) {
  Ip6Addr ip6Addr;
  ip6Addr.copyFromBuffer(address.s6_addr);
  return ip6Addr;
}

// The address a server binds, in the Pam's family.
IpGenAddr localAddr(const UdpPam& pam) {
  return pam.ipv6En() ? IpGenAddr(pam.rxIp6Addr()) : IpGenAddr(pam.rxIpAddr());
}

// A client's peer, or the destination of a server's next datagram.
IpGenAddr peerAddr(const UdpPam& pam) {
  return pam.ipv6En() ? IpGenAddr(pam.txDstIp6Addr()) : IpGenAddr(pam.txDstIpAddr());
}

// Joins or leaves a multicast group on the named device: `requestFor` fills the option's
// structure for the device's index. A device that does not exist fails like the option.
template <class Group, class RequestFor>
void changeMembership(const UdpPam& pam, int fd, const Mox::String8& devName, const Group& group,
                      bool join, int level, int option, const char* step, RequestFor requestFor) {
  MOX_TRACE(trace, 1,
            pam.name() << ": " << (join ? "joining " : "leaving ") << group << " on " << devName);
  if (const U32 ifIndex = interfaceIndex(fd, devName)) {
    const auto request = requestFor(ifIndex);
    if (setsockopt(fd, level, option, &request, sizeof request) == 0) return;
  }
  const int error = errno;
  MOX_TRACE(trace, 0, pam.name() << ": multicast group change failed with " << error);
  throw Mox::ErrnoException(error, step);
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
  // The descriptor entity owns the socket from here on: a failed step below closes it.
  const auto socket = Mox::make<Mox::FileDescriptor>(name(), fd);
  // Arrival interface and destination for clients and servers alike.
  for (const OptionStep& step : v6 ? ipv6ReceiveInfo : ipv4ReceiveInfo) {
    setIntegerOption(*this, fd, step, 1);
  }
  setIntegerOption(*this, fd, broadcastStep, 1);
  // Loopback of our own multicast stays on only when asked for.
  if (!enableIpMulticastLoop()) {
    setIntegerOption(*this, fd, v6 ? ipv6MulticastLoop : ipv4MulticastLoop, 0);
  }
  if (txTos().value() != 0) {
    MOX_TRACE(trace, 2, name() << ": TOS=" << unsigned(txTos().value()));
    if (v6) {
      setIntegerOption(*this, fd, ipv6Tos, int(txTos().value()));
    } else {
      // IPv4 takes the TOS as a single byte.
      const U8 tos = txTos().value();
      requireOption(*this, ipv4Tos, setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos));
    }
  }
  setIntegerOption(*this, fd, reuseAddrStep, 1);
  MOX_TRACE(trace, 1, name() << ": Socket fd is " << fd << ", mode is " << modeText(mode()));
  fd_.fileDescIs(socket, this);
  MOX_TRACE(trace, 1, name() << ": Done setting file desc ");
  if (mode() == Mode::server) doBind();
}

void UdpPam::doDelSocket() {
  fd_.del();
  socketConnectedIs(false);
  rxPortLocalDel();
}

void UdpPam::doBind() {
  const IpGenAddr local = localAddr(*this);
  MOX_TRACE(trace, 1, name() << ": Binding socket to " << local << " port " << rxPort());
  if (socketBind(fd_.descriptor(), local, rxPort()) != 0) {
    const int error = errno;
    MOX_TRACE(trace, 0, name() << ": bind failed with " << error);
    throw Mox::ErrnoException(error, "bind");
  }
  noteLocalPort();
}

void UdpPam::noteLocalPort() {
  SockAddr local{};
  socklen_t length = sizeof local;
  if (getsockname(fd_.descriptor(), &local.base, &length) != 0) return;
  rxPortLocalIs(sockAddrPort(&local.base));
}

bool UdpPam::doConnect() {
  if (mode() != Mode::client || socketConnected()) return socketConnected();
  const IpGenAddr peer = peerAddr(*this);
  if (!peer.isUnicast()) {
    MOX_TRACE(
        trace, 0,
        name() << ": " << (ipv6En() ? "Ip6Addr " : "IpAddr ") << peer << " not a unicast address");
    return false;
  }
  MOX_TRACE(trace, 1, name() << ": Connecting to " << peer << " port " << txPort());
  if (socketConnect(fd_.descriptor(), peer, txPort(), txIfIndex()) != 0) {
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
  SockAddr destination;
  if (mode() == Mode::client) {
    if (!doConnect()) return;
  } else {
    if (v6) {
      MOX_ASSERT(!txDstIp6Addr().isZero());
    } else {
      MOX_ASSERT_TEXT(txDstIpAddr() != IpAddr(), "txDstIpAddr() != Korva::IpAddr::ipAddrZero()");
    }
    msg.msg_name = &destination;
    msg.msg_namelen = constructSockAddr(&destination.base, peerAddr(*this), txPort(), txIfIndex());
  }
  msg.msg_iov = const_cast<iovec*>(pkt->iovecs());
  msg.msg_iovlen = pkt->iovecCount();

  alignas(cmsghdr) char control[controlBytes];
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

  if (sendmsg(fd_.descriptor(), &msg, 0) < 0) {
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
  RxMessage rx(maxRxPktData());
  const ssize_t received = rx.receive(fd_.descriptor(), 0);
  if (received < 0) {
    const int error = errno;
    if (error != EAGAIN) {
      MOX_TRACE(trace, 3,
                name() << ": recvmsg failed with " << error << " (" << strerror(error) << ")");
    }
    return;
  }
  MOX_TRACE(trace, 9, name() << ": Received packet of size " << received);
  if (rx.msg.msg_flags & MSG_TRUNC) {
    MOX_TRACE(trace, 3, name() << ": Discarding truncated packet");
    return;
  }
  const ReceivedInfo info = parseControl(rx.msg);
  const IpGenAddr sender = sockAddrIpGenAddr(&rx.source.base);
  if (sender.isV6()) {
    rxSrcIp6AddrIs(sender.v6Addr());
    rxDstIp6AddrIs(info.dst6);
  } else {
    rxSrcIpAddrIs(sender.v4Addr());
    rxDstIpAddrIs(info.dst);
  }
  rxSrcPortIs(sockAddrPort(&rx.source.base));
  rxIfIndexIs(info.ifIndex);
  rxTTLIs(info.ttl);
  rxTOSIs(info.tos);
  if (info.ifIndex == 0) MOX_TRACE(trace, 3, name() << ": recvmsg failed to retrieve ifindex");
  MOX_TRACE(trace, 9,
            name() << ": Received from ifindex " << info.ifIndex << " with src IP "
                   << (ipv6En() ? rxSrcIp6Addr().stringValue() : rxSrcIpAddr().stringValue())
                   << " and dest IP "
                   << (ipv6En() ? info.dst6.stringValue() : info.dst.stringValue()));
  rxPktsInc(1);
  rxPktHolderIs(rx.pkt);
}

void UdpPam::handleMcastGroup(const Mox::String8& devName, const Ip6Addr& group, bool join) {
  changeMembership(*this, fd_.descriptor(), devName, group, join, IPPROTO_IPV6,
                   join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP,
                   "setsockopt(IPV6_JOIN_GROUP|IPV6_LEAVE_GROUP)", [&](U32 ifIndex) {
                     ipv6_mreq request{};
                     group.copyToBuffer(request.ipv6mr_multiaddr.s6_addr);
                     request.ipv6mr_interface = ifIndex;
                     return request;
                   });
}

void UdpPam::handleV4McastGroup(const Mox::String8& devName, const IpAddr& group, bool join) {
  changeMembership(*this, fd_.descriptor(), devName, group, join, IPPROTO_IP,
                   join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP,
                   "setsockopt(IP_ADD_MEMBERSHIP|IP_DROP_MEMBERSHIP)", [&](U32 ifIndex) {
                     ip_mreqn request{};
                     request.imr_multiaddr.s_addr = group.valueNbo();
                     request.imr_ifindex = int(ifIndex);
                     return request;
                   });
}

void UdpPam::incSockBufSize(U32 bytes) {
  const int fd = fd_.descriptor();
  const int wanted = int(bytes);
  // Forcing passes the system-wide limit when the agent may; otherwise ask within it.
  for (auto [option, forced] :
       {std::pair{SO_RCVBUF, SO_RCVBUFFORCE}, {SO_SNDBUF, SO_SNDBUFFORCE}}) {
    int current = 0;
    if (getSocketOptionInteger(fd, SOL_SOCKET, option, &current) == 0 && current >= wanted) {
      continue;
    }
    // The kernel doubles what it is given, so nothing is read back.
    if (setSocketOptionInteger(fd, SOL_SOCKET, forced, wanted, false) == 0 ||
        setSocketOptionInteger(fd, SOL_SOCKET, option, wanted, false) == 0) {
      continue;
    }
    MOX_TRACE(trace, 0, name() << ": Error increasing socket buffer size, errno: " << errno);
  }
}

void UdpPam::assertNotConnected() const {
  MOX_ASSERT_TEXT(!socketConnected(), "!socketConnected()");
}

}  // namespace Korva
