#include "KernelPackets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
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

constexpr const char* peerIpv4 = "10.199.0.2";
constexpr const char* peerIpv6 = "fd00:199::2";

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

}  // namespace

PeerAddress peerAddress(int family, U16 port) {
  PeerAddress peer;
  if (family == AF_INET) {
    auto* addr = reinterpret_cast<sockaddr_in*>(&peer.storage);
    addr->sin_family = AF_INET;
    addr->sin_port = htons(port);
    inet_pton(AF_INET, peerIpv4, &addr->sin_addr);
    peer.length = sizeof *addr;
  } else {
    auto* addr = reinterpret_cast<sockaddr_in6*>(&peer.storage);
    addr->sin6_family = AF_INET6;
    addr->sin6_port = htons(port);
    inet_pton(AF_INET6, peerIpv6, &addr->sin6_addr);
    peer.length = sizeof *addr;
  }
  return peer;
}

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

std::vector<Mox::Ptr<Korva::Pkt>> LinkCapture::packets(size_t count, U8 protocol) {
  auto matching = [&] {
    std::vector<Mox::Ptr<Korva::Pkt>> found;
    for (const auto& pkt : seen_) {
      if (ipProtocolOf(*pkt) == protocol) found.push_back(pkt);
    }
    return found;
  };
  pollfd readable{fd_, POLLIN, 0};
  while (matching().size() < count && poll(&readable, 1, 1000) == 1) {
    Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
    const U32 size = pkt->maxSharedData();
    const ssize_t got = read(fd_, pkt->newSharedHeadData(size), size);
    if (got < 0) break;
    pkt->delSharedTailData(size - U32(got));
    seen_.push_back(pkt);
  }
  return matching();
}

}  // namespace KorvaTest
