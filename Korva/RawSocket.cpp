#include <Korva/RawSocket.h>
#include <Korva/SocketUtils.h>
#include <Korva/deferClose.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

namespace Korva {

namespace {

Mox::TraceHandle trace("RawSocket");

[[noreturn]] void throwErrno() {
  throw Mox::ErrnoException(errno, "");
}

int openSocket(int domain, int type, int protocol) {
  const int fd = ::socket(domain, type, protocol);
  if (fd == -1) throwErrno();
  return fd;
}

// The packet-socket address of `device`: its index and hardware address, for IPv4 frames.
sockaddr_ll deviceLinkAddress(const Mox::String8& device) {
  // Looking the device up needs some socket of this namespace. A failed look-up closes it
  // again; a successful set-up leaves it open, released by its owner.
  const auto lookup =
      Mox::make<Mox::FileDescriptor>("EthSocket lookup", openSocket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(0x0800);
  address.sll_hatype = ARPHRD_ETHER;
  address.sll_pkttype = 0;
  address.sll_halen = 6;
  address.sll_ifindex = int(interfaceIndex(lookup->descriptor(), device));
  if (address.sll_ifindex == 0) throwErrno();
  ifreq request{};
  std::strncpy(request.ifr_name, device.c_str(), IFNAMSIZ);
  if (ioctl(lookup->descriptor(), SIOCGIFHWADDR, &request) != 0) throwErrno();
  std::memcpy(address.sll_addr, request.ifr_hwaddr.sa_data, 6);
  lookup->release();
  return address;
}

}  // namespace

// --- RawSocket ---

RawSocket::RawSocket(Mox::String8 name, Mox::String8 device, Protocol protocol, Kind kind)
    : PktSocket(std::move(name)), device_(std::move(device)), protocol_(protocol), kind_(kind) {}

ssize_t RawSocket::sendPkt(Mox::Ptr<Pkt> pkt, IpAddr dst) {
  SockAddr to;
  constructSockAddr(&to.base, dst);
  const ssize_t sent = sendmsg(std::move(pkt), to.v4);
  if (sent < 0 && errno != EAGAIN) throwErrno();
  return sent;
}

U32 RawSocket::bufSize(int option) const {
  int bytes = 0;
  if (getSocketOptionInteger(descriptor(), SOL_SOCKET, option, &bytes) != 0) throwErrno();
  return U32(bytes);
}

void RawSocket::bufSizeIs(int option, U32 bytes) {
  // The kernel doubles what it is given, so nothing is read back.
  if (setSocketOptionInteger(descriptor(), SOL_SOCKET, option, int(bytes), false) != 0) {
    throwErrno();
  }
}

U32 RawSocket::sendBufSize() const {
  return bufSize(SO_SNDBUF);
}

void RawSocket::setSendBufSize(U32 bytes) {
  bufSizeIs(SO_SNDBUF, bytes);
}

U32 RawSocket::recvBufSize() const {
  return bufSize(SO_RCVBUF);
}

void RawSocket::setRecvBufSize(U32 bytes) {
  bufSizeIs(SO_RCVBUF, bytes);
}

// --- IpSocket ---

IpSocket::IpSocket(Mox::String8 device, Protocol protocol, Options options)
    : RawSocket(device.empty() ? "IpSocket" : device, device,
                protocol.isAny() ? Protocol(IPPROTO_RAW) : protocol, ip),
      options_(options) {
  descriptorIs(openSocket(AF_INET, SOCK_RAW, protocol_.value()));
  if ((options_ & headerIncluded) &&
      setSocketOptionInteger(descriptor(), IPPROTO_IP, IP_HDRINCL, 1, false) != 0) {
    throwErrno();
  }
  MOX_TRACE(trace, 5,
            "IpSocket " << device_ << " protocol " << protocol_ << " on fd " << descriptor());
}

void IpSocket::deviceIs(const Mox::String8& device) {
  device_ = device;
  if (setsockopt(descriptor(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                 socklen_t(device.size() + 1)) != 0) {
    throwErrno();
  }
}

void IpSocket::bind(IpAddr address) {
  if (socketBind(descriptor(), address, 0) != 0) throwErrno();
}

// --- EthSocket ---

EthSocket::EthSocket(Mox::String8 name, Mox::String8 device, Protocol protocol)
    : RawSocket(std::move(name), std::move(device), protocol, ethernet) {
  descriptorIs(openSocket(AF_PACKET, SOCK_RAW, protocol_.isAny() ? 3 : protocol_.value()));
  const sockaddr_ll link = deviceLinkAddress(device_);
  if (::bind(descriptor(), reinterpret_cast<const sockaddr*>(&link), sizeof link) != 0) {
    throwErrno();
  }
  // Closing a bound packet socket can block while the kernel drains it, which the loop must
  // never wait for. Until it is bound (a failed set-up) it closes at once.
  fileDescriptor_->closerIs(deferClose);
  MOX_TRACE(trace, 5,
            "EthSocket " << fileDescriptor_->name() << " on " << device_ << " ifindex "
                         << link.sll_ifindex << " fd " << descriptor());
}

// --- RawSocket::Manager ---

Mox::Ptr<EthSocket> RawSocket::Manager::newEthSocket(Mox::String8 name, Mox::String8 device,
                                                     Protocol protocol) {
  return Mox::make<EthSocket>(std::move(name), std::move(device), protocol);
}

Mox::Ptr<IpSocket> RawSocket::Manager::newIpSocket(Mox::String8 device, Protocol protocol,
                                                   IpSocket::Options options) {
  return Mox::make<IpSocket>(std::move(device), protocol, options);
}

Mox::Ptr<RawSocket::Manager> RawSocketManagerFactory() {
  return Mox::make<RawSocket::Manager>();
}

}  // namespace Korva
