#include <Korva/IpPam.h>
#include <Korva/NetnsUtils.h>
#include <Korva/SocketUtils.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>

#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Korva {

namespace {

template <class T>
T controlValue(const cmsghdr* cmsg) {
  T value;
  std::memcpy(&value, CMSG_DATA(cmsg), sizeof value);
  return value;
}

// What one control message said, where a packet's attributes take it.
struct ControlValue {
  enum Kind { none, pktInfo, origDst, tos, ttl } kind = none;
  U32 ifIndex = 0;
  IpGenAddr address;
  U8 byte = 0;
};

IpGenAddr ip6AddrAt(const in6_addr& address) {
  Ip6Addr v6;
  v6.copyFromBuffer(address.s6_addr);
  return IpGenAddr(v6);
}

ControlValue readControl(const cmsghdr* cmsg) {
  if (cmsg->cmsg_level == IPPROTO_IP) {
    switch (cmsg->cmsg_type) {
      case IP_PKTINFO: {
        const auto pktInfo = controlValue<in_pktinfo>(cmsg);
        return {ControlValue::pktInfo, U32(pktInfo.ipi_ifindex), IpAddr(pktInfo.ipi_addr.s_addr)};
      }
      case IP_ORIGDSTADDR:
        return {ControlValue::origDst, 0, IpAddr(controlValue<sockaddr_in>(cmsg).sin_addr.s_addr)};
      case IP_TOS:
        return {ControlValue::tos, 0, {}, controlValue<U8>(cmsg)};
      case IP_TTL:
        return {ControlValue::ttl, 0, {}, U8(controlValue<int>(cmsg))};
    }
  } else if (cmsg->cmsg_level == IPPROTO_IPV6) {
    switch (cmsg->cmsg_type) {
      case IPV6_PKTINFO: {
        const auto pktInfo = controlValue<in6_pktinfo>(cmsg);
        return {ControlValue::pktInfo, pktInfo.ipi6_ifindex, ip6AddrAt(pktInfo.ipi6_addr)};
      }
      case IPV6_ORIGDSTADDR:
        return {ControlValue::origDst, 0, ip6AddrAt(controlValue<sockaddr_in6>(cmsg).sin6_addr)};
      case IPV6_TCLASS:
        return {ControlValue::tos, 0, {}, U8(controlValue<int>(cmsg))};
      case IPV6_HOPLIMIT:
        return {ControlValue::ttl, 0, {}, U8(controlValue<int>(cmsg))};
    }
  }
  return {};
}

}  // namespace

U32 ipSocketOptions(std::initializer_list<IpSocketOptions> bits) {
  U32 options = 0;
  for (IpSocketOptions bit : bits) options |= U32(bit);
  return options;
}

void IpPam::setOption(int fd, int level, int option, int value, const char* step) {
  if (setSocketOptionInteger(fd, level, option, value, false) == 0) return;
  const int error = errno;
  MOX_TRACE(family().trace, 0, name() << ": " << step << " failed with " << error);
  throw Mox::ErrnoException(error, step);
}

void IpPam::doConfigureHeader(int, bool) {}

void IpPam::enabledIs(bool enabled) {
  if (socketFamily() && enabled != this->enabled()) {
    if (enabled) {
      openSocket();
    } else {
      handleCleanup();
    }
  }
  IpPamBase::enabledIs(enabled);
}

void IpPam::optionsIs(U32 options) {
  if (socketFamily() && enabled()) {
    changeOptions(options);
  } else {
    IpPamBase::optionsIs(options);
  }
}

void IpPam::txTOSIs(const IpDscp& txTOS) {
  if (socketFamily() && enabled()) applyTOS(descriptor(), txTOS);
  IpPamBase::txTOSIs(txTOS);
}

void IpPam::txTTLIs(const IpTtl& txTTL) {
  if (socketFamily() && enabled()) applyTTL(descriptor(), txTTL);
  IpPamBase::txTTLIs(txTTL);
}

void IpPam::openSocket() {
  const IpSocketFamily& f = family();
  const int fd = socketAt(f.domain, SOCK_RAW, protocol(), netNs().value());
  if (fd < 0) {
    const int error = errno;
    MOX_TRACE(f.trace, 0, name() << ": socket failed with " << error);
    throw Mox::ErrnoException(error, "socket");
  }
  // The descriptor entity owns the socket from here on: a failed step below closes it.
  const auto socket = Mox::make<Mox::FileDescriptor>(name(), fd);
  doConfigureHeader(fd, false);
  for (const IpOptionStep& step : f.receiveSteps) {
    if (step.always || hasOption(step.bit)) {
      setOption(fd, step.level, step.option, hasOption(step.bit), step.step);
    }
  }
  if (hasOption(IpSocketOptions::ipAttachFilter)) attachFilter(fd);
  if (hasOption(IpSocketOptions::ipRcvBuf)) {
    setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, int(rxBuf()), "setsockopt(SO_RCVBUFFORCE)");
  }
  if (txTOS().value() != 0) applyTOS(fd, txTOS());
  if (txTTL().value() != 0) applyTTL(fd, txTTL());
  if (hasOption(IpSocketOptions::ipTransparent)) {
    setOption(fd, f.transparent.level, f.transparent.option, 1, f.transparent.step);
  }
  if (hasOption(IpSocketOptions::ipPriority)) {
    MOX_TRACE(f.trace, 2, name() << ": Socket priority is " << priority());
    setOption(fd, SOL_SOCKET, SO_PRIORITY, int(priority()), "setsockopt(SO_PRIORITY)");
  }
  MOX_TRACE(f.trace, 1, name() << ": Socket fd is " << fd);
  fd_.fileDescIs(socket, this);
}

void IpPam::handleCleanup() {
  fd_.del();
}

void IpPam::attachFilter(int fd) {
  const IpSocketFamily& f = family();
  if (rxFilterSize() == 0) {
    MOX_TRACE(f.trace, 0, name() << ": no filter program in rxFilter");
    throw Mox::ErrnoException(EINVAL,
                              "SO_ATTACH_FILTER option must be supplied with a valid filter");
  }
  std::vector<sock_filter> program;
  program.reserve(rxFilterSize());
  for (const auto& entry : rxFilterColl()) {
    // Named copies: the trace's lambda cannot capture structured bindings under clang 14.
    const auto index = entry.first;
    const auto& insn = entry.second;
    MOX_TRACE(f.trace, 3,
              name() << ": Filter[" << unsigned(index) << "] is " << insn.code()
                     << " jt: " << unsigned(insn.jt()) << " jf: " << unsigned(insn.jf())
                     << " k: " << insn.k());
    program.push_back(sock_filter{insn.code(), insn.jt(), insn.jf(), insn.k()});
  }
  const sock_fprog fprog{U16(program.size()), program.data()};
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) != 0) {
    const int error = errno;
    MOX_TRACE(f.trace, 0, name() << ": SO_ATTACH_FILTER failed with " << error);
    throw Mox::ErrnoException(error, "setsockopt(SO_ATTACH_FILTER)");
  }
}

void IpPam::applyTOS(int fd, IpDscp tos) {
  const IpSocketFamily& f = family();
  MOX_TRACE(f.trace, 2, name() << ": TOS=" << unsigned(tos.value()));
  const IpOptionStep& step = f.tos;
  if (f.domain == AF_INET) {
    // The IPv4 socket takes TOS as the one byte it is.
    const U8 value = tos.value();
    if (setsockopt(fd, step.level, step.option, &value, sizeof value) == 0) return;
    const int error = errno;
    MOX_TRACE(f.trace, 0, name() << ": " << step.step << " failed with " << error);
    throw Mox::ErrnoException(error, step.step);
  }
  setOption(fd, step.level, step.option, tos.value(), step.step);
}

void IpPam::applyTTL(int fd, IpTtl ttl) {
  const IpSocketFamily& f = family();
  MOX_TRACE(f.trace, 2, name() << ": Set TTL=" << unsigned(ttl.value()));
  // -1 gives the kernel's default back.
  const int value = ttl.value() == 0 ? -1 : ttl.value();
  const int level = f.domain == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
  for (int option : f.ttlOptions) setOption(fd, level, option, value, f.ttlStep);
}

void IpPam::changeOptions(U32 newOptions) {
  const IpSocketFamily& f = family();
  const U32 changed = options() ^ newOptions;
  MOX_TRACE(
      f.trace, 1,
      name() << ": oldOptions=0x" << std::hex << options() << " changedOptions=0x" << changed);
  auto changes = [&](IpSocketOptions bit) { return (changed & U32(bit)) != 0; };
  auto isSet = [&](IpSocketOptions bit) { return (newOptions & U32(bit)) != 0; };
  const int fd = descriptor();
  // The steps read the new bits through options(); a failure puts the old ones back.
  const U32 oldOptions = options();
  IpPamBase::optionsIs(newOptions);
  try {
    if (changes(IpSocketOptions::ipHdrIncl)) doConfigureHeader(fd, true);
    for (const IpOptionStep& step : f.receiveSteps) {
      if (changes(step.bit)) {
        setOption(fd, step.level, step.option, isSet(step.bit) ? 1 : step.off, step.step);
      }
    }
    if (changes(IpSocketOptions::ipAttachFilter)) {
      if (isSet(IpSocketOptions::ipAttachFilter)) {
        attachFilter(fd);
      } else {
        setOption(fd, SOL_SOCKET, SO_DETACH_FILTER, 0, "setsockopt(SO_DETACH_FILTER)");
      }
    }
    if (changes(IpSocketOptions::ipRcvBuf) && isSet(IpSocketOptions::ipRcvBuf)) {
      setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, int(rxBuf()), "setsockopt(SO_RCVBUFFORCE)");
    }
    if (changes(IpSocketOptions::ipTransparent)) {
      setOption(fd, f.transparent.level, f.transparent.option,
                isSet(IpSocketOptions::ipTransparent), f.transparent.step);
    }
    if (changes(IpSocketOptions::ipPriority)) {
      const int value = isSet(IpSocketOptions::ipPriority) ? int(priority()) : 0;
      MOX_TRACE(f.trace, 2, name() << ": Socket priority is " << value);
      setOption(fd, SOL_SOCKET, SO_PRIORITY, value, "setsockopt(SO_PRIORITY)");
    }
  } catch (...) {
    IpPamBase::optionsIs(oldOptions);
    throw;
  }
}

void IpPam::resolveTxIfName() {
  const IpSocketFamily& f = family();
  const U32 index = interfaceIndex(descriptor(), txIfName());
  MOX_TRACE(f.trace, 5, name() << ": Tx IfName set to " << txIfName());
  if (index == 0) MOX_TRACE(f.trace, 1, name() << ": Invalid txIfName supplied.");
  txIfIndexIs(index);
}

void IpPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  const IpSocketFamily* kind = socketFamily();
  if (!kind) {
    IpPamBase::txPktIs(pkt);
    return;
  }
  const IpSocketFamily& f = *kind;
  MOX_TRACE(f.trace, 9, name() << ": Sending pkt of size " << pkt->bytes());
  MOX_ASSERT_TEXT(enabled(), "enabled()");
  const bool v6 = f.domain == AF_INET6;
  // The destination in the socket's family, whatever the family of txDstIpAddr.
  const IpGenAddr dst = v6 ? IpGenAddr(txDstIpAddr().v6Addr()) : IpGenAddr(txDstIpAddr().v4Addr());
  SockAddr destination;
  msghdr msg{};
  msg.msg_name = &destination;
  msg.msg_namelen = constructSockAddr(&destination.base, dst);
  msg.msg_iov = const_cast<iovec*>(pkt->iovecs());
  msg.msg_iovlen = pkt->iovecCount();
  if (v6) MOX_TRACE(f.trace, 9, name() << ": sendmsg() to " << txDstIpAddr());

  if (!txIfName().empty()) resolveTxIfName();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))];
  if (txIfIndex() != 0 || !txSrcIpAddr().isAddrZero()) {
    msg.msg_control = control;
    msg.msg_controllen = v6 ? CMSG_SPACE(sizeof(in6_pktinfo)) : CMSG_SPACE(sizeof(in_pktinfo));
    std::memset(control, 0, sizeof control);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    MOX_TRACE(f.trace, 9,
              name() << (v6 ? ": IPV6_PKTINFO option set" : ": IP_PKTINFO option set")
                     << "; Transmitting packet through ifindex " << txIfIndex()
                     << "; Overriding source ip Address " << txSrcIpAddr());
    if (v6) {
      in6_pktinfo pktInfo{};
      if (!txSrcIpAddr().isAddrZero())
        txSrcIpAddr().v6Addr().copyToBuffer(pktInfo.ipi6_addr.s6_addr);
      pktInfo.ipi6_ifindex = txIfIndex();
      cmsg->cmsg_level = IPPROTO_IPV6;
      cmsg->cmsg_type = IPV6_PKTINFO;
      cmsg->cmsg_len = CMSG_LEN(sizeof pktInfo);
      std::memcpy(CMSG_DATA(cmsg), &pktInfo, sizeof pktInfo);
    } else {
      in_pktinfo pktInfo{};
      pktInfo.ipi_ifindex = int(txIfIndex());
      pktInfo.ipi_spec_dst.s_addr = txSrcIpAddr().v4Addr().valueNbo();
      cmsg->cmsg_level = IPPROTO_IP;
      cmsg->cmsg_type = IP_PKTINFO;
      cmsg->cmsg_len = CMSG_LEN(sizeof pktInfo);
      std::memcpy(CMSG_DATA(cmsg), &pktInfo, sizeof pktInfo);
    }
  }
  MOX_TRACE(f.trace, 9, name() << ": sendmsg( ) with flags : " << txFlags());
  if (sendmsg(descriptor(), &msg, txFlags()) < 0) {
    const int error = errno;
    MOX_TRACE(f.trace, 3,
              name() << ": sendmsg failed with " << error << " (" << strerror(error) << ")");
    // Every failure counts, a full send buffer (EAGAIN) included.
    txErrorsInc(1);
    return;
  }
  txPktCountInc(1);
}

void IpPam::doGetRxPkt() {
  const IpSocketFamily* kind = socketFamily();
  if (!kind) {
    Pam::doGetRxPkt();
    return;
  }
  const IpSocketFamily& f = *kind;
  if (!enabled()) {
    MOX_TRACE(f.trace, 1, name() << ": " << f.unit << " not enabled. Aborting action");
    return;
  }
  RxMessage rx(maxRxPktData());
  if (!rx.pkt) {
    MOX_TRACE(f.trace, 0, name() << ": Failed to obtain new packet object");
    if (rx.receive(descriptor(), rxFlags()) >= 0) rxErrorsInc(1);
    return;
  }
  const ssize_t received = rx.receive(descriptor(), rxFlags());
  if (received < 0) {
    const int error = errno;
    if (error != EAGAIN) {
      MOX_TRACE(f.trace, 3,
                name() << ": recvmsg failed with " << error << " (" << strerror(error) << ") ");
    }
    // Finding nothing counts too, deliberately: a readable report that yields no packet.
    rxErrorsInc(1);
    return;
  }
  MOX_TRACE(f.trace, 9, name() << ": Received packet of size " << received);
  rxSrcIpAddrIs(sockAddrIpGenAddr(&rx.source.base));
  MOX_TRACE(f.trace, 9, name() << ": Source IP address is " << rxSrcIpAddr());

  bool hasIfIndex = false;
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&rx.msg); cmsg; cmsg = CMSG_NXTHDR(&rx.msg, cmsg)) {
    const ControlValue value = readControl(cmsg);
    switch (value.kind) {
      case ControlValue::pktInfo:
        hasIfIndex = true;
        rxIfIndexIs(value.ifIndex);
        rxDstIpAddrIs(value.address);
        MOX_TRACE(f.trace, 9,
                  name() << ": Packet arrived on interface index " << value.ifIndex
                         << " with destination IP of " << value.address);
        break;
      case ControlValue::origDst:
        rxOrigDstIpAddrIs(value.address);
        MOX_TRACE(f.trace, 9, name() << ": Original destination IP is " << value.address);
        break;
      case ControlValue::tos:
        rxTOSIs(value.byte);
        MOX_TRACE(f.trace, 9,
                  name() << ": TOS of received packet is 0x" << std::hex << unsigned(value.byte));
        break;
      case ControlValue::ttl:
        rxTTLIs(value.byte);
        MOX_TRACE(f.trace, 9,
                  name() << ": TTL of received packet is 0x" << std::hex << unsigned(value.byte));
        break;
      case ControlValue::none:
        break;
    }
  }
  if (!hasIfIndex && hasOption(IpSocketOptions::ipPktInfo)) {
    MOX_TRACE(f.trace, 3, name() << ": recvmsg failed to retrieve ifindex");
  }
  if (received == 0) {
    MOX_TRACE(f.trace, 3, name() << ": Discarding empty packet");
    return;
  }
  rxPktCountInc(1);
  rxPktHolderIs(rx.pkt);
}

}  // namespace Korva
