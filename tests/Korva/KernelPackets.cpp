#include "KernelPackets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

namespace KorvaTest {

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;

// Moves this thread into a namespace of its own and opens the link there; returns its
// descriptor, or -1 and why.
int openLink(std::string& reason) {
  if (unshare(CLONE_NEWNET) != 0) {
    reason = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
    return -1;
  }
  // Router solicitations would mix with the ICMPv6 messages of a test.
  std::ofstream("/proc/sys/net/ipv6/conf/default/router_solicitations") << 0;
  int fd = open("/dev/net/tun", O_RDWR);
  ifreq ifr{};
  std::strcpy(ifr.ifr_name, "kcsum0");
  ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (fd < 0 || ioctl(fd, TUNSETIFF, &ifr) != 0) {
    reason = std::string("TUN device: ") + std::strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  // A child process inherits this thread's namespace.
  if (std::system("ip link set lo up && ip link set kcsum0 up"
                  " && ip addr add 10.199.0.1/24 dev kcsum0"
                  " && ip -6 addr add fd00:199::1/64 dev kcsum0 nodad") != 0) {
    reason = "ip link/addr commands failed";
    close(fd);
    return -1;
  }
  return fd;
}

U8 ipProtocolOf(const Korva::Pkt& pkt) {
  if (pkt.bytes() >= 20 && (pkt.rawByte(0) >> 4) == 4) return pkt.rawByte(9);
  if (pkt.bytes() >= 40 && (pkt.rawByte(0) >> 4) == 6) return pkt.rawByte(6);
  return Korva::ipProtoUnknown;
}

// An address behind the link.
sockaddr_storage peerAddress(int family, U16 port) {
  sockaddr_storage peer{};
  if (family == AF_INET) {
    auto* addr = reinterpret_cast<sockaddr_in*>(&peer);
    addr->sin_family = AF_INET;
    addr->sin_port = htons(port);
    inet_pton(AF_INET, "10.199.0.2", &addr->sin_addr);
  } else {
    auto* addr = reinterpret_cast<sockaddr_in6*>(&peer);
    addr->sin6_family = AF_INET6;
    addr->sin6_port = htons(port);
    inet_pton(AF_INET6, "fd00:199::2", &addr->sin6_addr);
  }
  return peer;
}

}  // namespace

std::string inPrivateLink(const std::function<void(LinkCapture&)>& body) {
  std::string reason;
  // unshare() moves only the calling thread, so the test's own thread stays where it was.
  std::thread worker([&] {
    const int fd = openLink(reason);
    if (fd < 0) return;
    LinkCapture capture(fd);
    body(capture);
    close(fd);
  });
  worker.join();
  return reason;
}

std::vector<Mox::Ptr<Korva::Pkt>> LinkCapture::send(int family, int type, U8 protocol, U16 port,
                                                    const std::vector<std::string>& messages,
                                                    int flags) {
  const sockaddr_storage peer = peerAddress(family, port);
  const socklen_t peerLength = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  for (const std::string& message : messages) {
    const int fd = socket(family, type | SOCK_NONBLOCK, protocol);
    // A connection attempt sends its SYN inside the call; nobody answers it.
    EXPECT_TRUE(sendto(fd, message.data(), message.size(), flags,
                       reinterpret_cast<const sockaddr*>(&peer), peerLength) >= 0 ||
                errno == EINPROGRESS)
        << std::strerror(errno);
    close(fd);
  }
  std::vector<Mox::Ptr<Korva::Pkt>> packets;
  pollfd readable{fd_, POLLIN, 0};
  while (packets.size() < messages.size() && poll(&readable, 1, 1000) == 1) {
    Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
    const U32 size = pkt->maxSharedData();
    const ssize_t got = read(fd_, pkt->newSharedHeadData(size), size);
    if (got < 0) break;
    pkt->delSharedTailData(size - U32(got));
    if (ipProtocolOf(*pkt) == protocol) packets.push_back(pkt);
  }
  return packets;
}

}  // namespace KorvaTest
