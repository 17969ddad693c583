#include <Korva/SocketUtils.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace {

using Korva::AddressFamily;
using Korva::IpGenAddr;
using Korva::SockAddr;
using Mox::U16;
using Mox::U32;
using Mox::U8;

// A socket closed when the test leaves its scope.
struct Socket {
  explicit Socket(int domain, int type = SOCK_DGRAM) : fd(socket(domain, type, 0)) {}
  ~Socket() { close(fd); }
  int fd;
};

// Random addresses of both families, as text, checked against glibc's own conversion.
TEST(SocketUtils, SockAddrMatchesInetPtonBothWays) {
  std::mt19937 random(7);
  char text[INET6_ADDRSTRLEN];
  for (int i = 0; i < 2000; ++i) {
    const bool v6 = i % 2;
    unsigned char bytes[16];
    for (unsigned char& byte : bytes) byte = U8(random());
    inet_ntop(v6 ? AF_INET6 : AF_INET, bytes, text, sizeof text);
    const IpGenAddr addr(text);
    const U16 port = U16(random());
    const U32 scope = v6 ? U32(random()) : 0;
    SockAddr sa;
    std::memset(&sa, 0xa5, sizeof sa);
    const socklen_t length = Korva::constructSockAddr(&sa.base, addr, port, scope);
    if (v6) {
      sockaddr_in6 expected{};
      expected.sin6_family = AF_INET6;
      expected.sin6_port = htons(port);
      expected.sin6_scope_id = scope;
      ASSERT_EQ(inet_pton(AF_INET6, text, &expected.sin6_addr), 1);
      ASSERT_EQ(length, sizeof expected);
      EXPECT_EQ(std::memcmp(&sa.v6, &expected, sizeof expected), 0) << text;
    } else {
      sockaddr_in expected{};
      expected.sin_family = AF_INET;
      expected.sin_port = htons(port);
      ASSERT_EQ(inet_pton(AF_INET, text, &expected.sin_addr), 1);
      ASSERT_EQ(length, sizeof expected);
      EXPECT_EQ(std::memcmp(&sa.v4, &expected, sizeof expected), 0) << text;
    }
    EXPECT_EQ(Korva::sockAddrIpGenAddr(&sa.base), addr);
    EXPECT_EQ(Korva::sockAddrPort(&sa.base), port);
    EXPECT_EQ(Korva::constructSockAddr(&sa.base, addr), length);
    EXPECT_EQ(Korva::sockAddrPort(&sa.base), 0) << "the short form has port 0";
  }
  sockaddr unix{};
  unix.sa_family = AF_UNIX;
  EXPECT_EQ(Korva::sockAddrIpGenAddr(&unix).af(), AddressFamily::ipunknown);
  EXPECT_EQ(Korva::sockAddrPort(&unix), 0);
}

TEST(SocketUtilsDeathTest, AReadBackThatDiffersIsAFault) {
  Socket v4(AF_INET);
  // The kernel doubles a buffer size.
  EXPECT_EQ(Korva::setSocketOptionInteger(v4.fd, SOL_SOCKET, SO_RCVBUF, 4096, false), 0);
  EXPECT_DEATH(Korva::setSocketOptionInteger(v4.fd, SOL_SOCKET, SO_RCVBUF, 4096, true),
               "Assertion \"value == verificationValue\" failed");
}

// Bind and connect over loopback, in both families: the peer sees the port it was given.
TEST(SocketUtils, BindAndConnectCarryThePortInNetworkOrder) {
  for (const char* loopback : {"127.0.0.1", "::1"}) {
    const IpGenAddr addr(loopback);
    const int domain = addr.isV6() ? AF_INET6 : AF_INET;
    Socket server(domain), client(domain);
    ASSERT_EQ(Korva::socketBind(server.fd, addr, 0), 0) << loopback;
    SockAddr local;
    socklen_t length = sizeof local;
    ASSERT_EQ(getsockname(server.fd, &local.base, &length), 0);
    EXPECT_EQ(Korva::sockAddrIpGenAddr(&local.base), addr);
    const U16 port = Korva::sockAddrPort(&local.base);

    ASSERT_EQ(Korva::socketBindClient(client.fd, addr.af(), IpGenAddr()), 0);
    ASSERT_EQ(Korva::socketConnect(client.fd, addr, port), 0);
    ASSERT_EQ(send(client.fd, "hi", 2, 0), 2);
    SockAddr from;
    length = sizeof from;
    char buffer[4];
    ASSERT_EQ(recvfrom(server.fd, buffer, sizeof buffer, 0, &from.base, &length), 2);
    SockAddr clientEnd;
    length = sizeof clientEnd;
    ASSERT_EQ(getsockname(client.fd, &clientEnd.base, &length), 0);
    EXPECT_EQ(Korva::sockAddrPort(&from.base), Korva::sockAddrPort(&clientEnd.base));
    EXPECT_NE(Korva::sockAddrPort(&clientEnd.base), 0) << "the kernel chose a client port";
    // The wildcard of the family was bound, so the kernel picked the source.
    EXPECT_EQ(Korva::sockAddrIpGenAddr(&from.base), addr);

    EXPECT_EQ(Korva::socketBind(server.fd, addr, port), -1) << "already bound";
    EXPECT_EQ(errno, EINVAL);
  }
}

// Integer options set and read back are the Pams' option tests' business; here a failure
// keeps the kernel's errno, and an interface index is the kernel's or 0.
TEST(SocketUtils, FailuresKeepErrnoAndInterfaceIndexIsTheKernels) {
  Socket v4(AF_INET);
  EXPECT_EQ(Korva::interfaceIndex(v4.fd, "lo"), if_nametoindex("lo"));
  errno = 0;
  EXPECT_EQ(Korva::interfaceIndex(v4.fd, "korva-none0"), 0u);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_EQ(Korva::setSocketOptionInteger(-1, SOL_SOCKET, SO_REUSEADDR, 1, true), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(SocketUtilsDeathTest, AnAddressOfNoFamilyIsAFault) {
  Socket v4(AF_INET);
  SockAddr sa;
  EXPECT_DEATH(Korva::constructSockAddr(&sa.base, IpGenAddr()),
               "Assertion \"0 && \"Invalid address cstring\"\" failed");
  EXPECT_DEATH(Korva::socketBind(v4.fd, IpGenAddr(), 1),
               "Assertion \"0 && \"Unexpected af\"\" failed");
  EXPECT_DEATH(Korva::socketConnect(v4.fd, IpGenAddr(), 1),
               "Assertion \"0 && \"Unexpected af\"\" failed");
  EXPECT_DEATH(Korva::socketBindClient(v4.fd, AddressFamily::ipunknown, IpGenAddr()),
               "Assertion \"0 && \"Unknown af\"\" failed");
}

}  // namespace
