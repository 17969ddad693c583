#include <Korva/SocketUtils.h>
#include <Mox/Assert.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstring>

namespace Korva {

namespace {

bool knownFamily(AddressFamily af) {
  return af == AddressFamily::ipv4 || af == AddressFamily::ipv6;
}

}  // namespace

socklen_t constructSockAddr(sockaddr* sa, const IpGenAddr& addr) {
  if (addr.isV4()) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = addr.v4Addr().valueNbo();
    std::memcpy(sa, &v4, sizeof v4);
    return sizeof v4;
  }
  MOX_ASSERT_TEXT(addr.isV6(), "0 && \"Invalid address cstring\"");
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  addr.copyToBuffer(v6.sin6_addr.s6_addr);
  std::memcpy(sa, &v6, sizeof v6);
  return sizeof v6;
}

socklen_t constructSockAddr(sockaddr* sa, const IpGenAddr& addr, U16 port, U32 scopeId) {
  const socklen_t length = constructSockAddr(sa, addr);
  // The port sits at the same place in both families.
  reinterpret_cast<sockaddr_in*>(sa)->sin_port = htons(port);
  if (addr.isV6()) reinterpret_cast<sockaddr_in6*>(sa)->sin6_scope_id = scopeId;
  return length;
}

IpGenAddr sockAddrIpGenAddr(const sockaddr* sa) noexcept {
  if (sa->sa_family == AF_INET) {
    return IpAddr(reinterpret_cast<const sockaddr_in*>(sa)->sin_addr.s_addr);
  }
  if (sa->sa_family != AF_INET6) return IpGenAddr();
  Ip6Addr address;
  address.copyFromBuffer(reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr.s6_addr);
  return address;
}

U16 sockAddrPort(const sockaddr* sa) noexcept {
  if (sa->sa_family != AF_INET && sa->sa_family != AF_INET6) return 0;
  return ntohs(reinterpret_cast<const sockaddr_in*>(sa)->sin_port);
}

int getSocketOptionInteger(int fd, int level, int optname, int* value) {
  socklen_t length = sizeof *value;
  return getsockopt(fd, level, optname, value, &length);
}

int setSocketOptionInteger(int fd, int level, int optname, int value, bool verify) {
  const int result = setsockopt(fd, level, optname, &value, sizeof value);
  if (result != 0 || !verify) return result;
  int verificationValue = 0;
  socklen_t valueLength = sizeof verificationValue;
  const int readBack = getsockopt(fd, level, optname, &verificationValue, &valueLength);
  if (readBack != 0) return readBack;
  MOX_ASSERT_TEXT(valueLength == sizeof(verificationValue),
                  "valueLength == sizeof( verificationValue )");
  MOX_ASSERT(value == verificationValue);
  return 0;
}

int socketBind(int fd, const IpGenAddr& addr, U16 port) {
  MOX_ASSERT_TEXT(knownFamily(addr.af()), "0 && \"Unexpected af\"");
  SockAddr local;
  const socklen_t length = constructSockAddr(&local.base, addr, port);
  return bind(fd, &local.base, length);
}

int socketBindClient(int fd, AddressFamily af, const IpGenAddr& addr) {
  MOX_ASSERT_TEXT(knownFamily(af), "0 && \"Unknown af\"");
  return socketBind(fd, addr.af() == AddressFamily::ipunknown ? IpGenAddr(af) : addr, 0);
}

int socketConnect(int fd, const IpGenAddr& addr, U16 port, U32 scopeId) {
  MOX_ASSERT_TEXT(knownFamily(addr.af()), "0 && \"Unexpected af\"");
  SockAddr peer;
  const socklen_t length = constructSockAddr(&peer.base, addr, port, scopeId);
  return connect(fd, &peer.base, length);
}

U32 interfaceIndex(int fd, const Mox::String8& device) {
  ifreq request{};
  std::strncpy(request.ifr_name, device.c_str(), IFNAMSIZ - 1);
  if (ioctl(fd, SIOCGIFINDEX, &request) != 0) return 0;
  return U32(request.ifr_ifindex);
}

}  // namespace Korva
