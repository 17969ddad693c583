#pragma once
// The socket toolkit every Pam, socket wrapper and TCP machine builds on: socket addresses
// from Korva addresses and back, integer socket options with an optional read-back,
// bind and connect with the port in host order, and interface look-up in the namespace of
// a socket. The calls return what the system call returned (0, or -1 with errno set) and
// never throw; callers decide whether a failure is thrown, traced or counted. An address
// family other than IPv4 or IPv6 is a programming fault and aborts.
//
//   Korva::SockAddr peer;
//   const socklen_t length = Korva::constructSockAddr(&peer.base, Korva::IpGenAddr(dst), 53);
//   if (Korva::socketConnect(fd, Korva::IpGenAddr(dst), 53) != 0) { ... errno ... }

#include <Korva/IpGenAddr.h>
#include <Korva/Types.h>

#include <netinet/in.h>
#include <sys/socket.h>

namespace Korva {

// Room for the socket address of either family.
union SockAddr {
  sockaddr base;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

// Fills `sa` with the sockaddr_in (16 bytes) or sockaddr_in6 (28 bytes) of `addr`, port 0,
// and returns that length; `sa` must have room for it (a SockAddr has).
socklen_t constructSockAddr(sockaddr* sa, const IpGenAddr& addr);
// The same with a port (host order) and, for IPv6, the scope of a link-local address.
socklen_t constructSockAddr(sockaddr* sa, const IpGenAddr& addr, U16 port, U32 scopeId = 0);
// The address and the port (host order) of an AF_INET or AF_INET6 socket address; no
// family and port 0 for any other.
IpGenAddr sockAddrIpGenAddr(const sockaddr* sa) noexcept;
U16 sockAddrPort(const sockaddr* sa) noexcept;

// getsockopt of a 4-byte int.
int getSocketOptionInteger(int fd, int level, int optname, int* value);
// setsockopt of a 4-byte int; with `verify` it is read back and must come back equal
// (options the kernel adjusts, such as buffer sizes, are set without it).
int setSocketOptionInteger(int fd, int level, int optname, int value, bool verify);

// Binds to `addr` and `port`.
int socketBind(int fd, const IpGenAddr& addr, U16 port);
// Binds a client socket of family `af` to `addr` with a port of the kernel's choice; an
// address of no family binds to the family's wildcard address.
int socketBindClient(int fd, AddressFamily af, const IpGenAddr& addr);
// Connects to `addr` and `port` (for IPv6, in the scope given).
int socketConnect(int fd, const IpGenAddr& addr, U16 port, U32 scopeId = 0);

// The index of `device` in the network namespace of socket `fd` (which need not be the
// caller's); 0 with errno set when there is no such device.
U32 interfaceIndex(int fd, const Mox::String8& device);

}  // namespace Korva
