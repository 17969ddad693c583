#include "KernelPackets.h"

#include <Korva/IpHdr.h>

#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace KorvaTest {

namespace {

using Korva::U32;
using Korva::U8;

std::string failure(const char* step) {
  return std::string(step) + ": " + std::strerror(errno);
}

// Switches off the named feature bits of an interface, as `ethtool -K` does: the bits are
// found by name in the kernel's feature string set.
std::string featuresOff(int fd, ifreq& ifr, std::initializer_list<std::string_view> names) {
  // The set sizes follow the request, one word per set asked for.
  std::vector<U8> setsBuffer(sizeof(ethtool_sset_info) + sizeof(U32));
  auto* sets = reinterpret_cast<ethtool_sset_info*>(setsBuffer.data());
  sets->cmd = ETHTOOL_GSSET_INFO;
  sets->sset_mask = 1ull << ETH_SS_FEATURES;
  ifr.ifr_data = reinterpret_cast<char*>(sets);
  if (ioctl(fd, SIOCETHTOOL, &ifr) != 0 || !sets->sset_mask) {
    return failure("ETHTOOL_GSSET_INFO");
  }
  U32 count = sets->data[0];
  std::vector<U8> stringsBuffer(sizeof(ethtool_gstrings) + count * ETH_GSTRING_LEN);
  auto* strings = reinterpret_cast<ethtool_gstrings*>(stringsBuffer.data());
  strings->cmd = ETHTOOL_GSTRINGS;
  strings->string_set = ETH_SS_FEATURES;
  strings->len = count;
  ifr.ifr_data = reinterpret_cast<char*>(strings);
  if (ioctl(fd, SIOCETHTOOL, &ifr) != 0) return failure("ETHTOOL_GSTRINGS");

  U32 blocks = (count + 31) / 32;
  std::vector<U8> setBuffer(sizeof(ethtool_sfeatures) +
                            blocks * sizeof(ethtool_set_features_block));
  auto* request = reinterpret_cast<ethtool_sfeatures*>(setBuffer.data());
  request->cmd = ETHTOOL_SFEATURES;
  request->size = blocks;
  for (U32 i = 0; i < count; ++i) {
    std::string_view name(reinterpret_cast<const char*>(strings->data + i * ETH_GSTRING_LEN));
    for (std::string_view wanted : names) {
      if (name == wanted) request->features[i / 32].valid |= 1u << (i % 32);
    }
  }
  ifr.ifr_data = reinterpret_cast<char*>(request);
  if (ioctl(fd, SIOCETHTOOL, &ifr) < 0) return failure("ETHTOOL_SFEATURES");
  return "";
}

std::string setUpLink() {
  if (unshare(CLONE_NEWNET) != 0) return failure("unshare(CLONE_NEWNET)");
  // A child process inherits this thread's namespace.
  std::string commands =
      std::string("ip link set lo up") + " && ip link add " + linkName +
      " type veth peer name kcsum1" + " && ip link set kcsum1 up && ip link set " + linkName +
      " up" + " && ip addr add 10.199.0.1/24 dev " + linkName +
      " && ip -6 addr add fd00:199::1/64 dev " + linkName + " nodad" + " && ip neigh add " +
      peerIpv4 + " lladdr 02:00:00:00:00:02 dev " + linkName + " && ip -6 neigh add " + peerIpv6 +
      " lladdr 02:00:00:00:00:02 dev " + linkName;
  if (std::system(commands.c_str()) != 0) return "ip link/addr/neigh commands failed";
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return failure("socket");
  ifreq ifr{};
  std::strcpy(ifr.ifr_name, linkName);
  std::string reason = featuresOff(
      fd, ifr,
      {"tx-checksum-ipv4", "tx-checksum-ip-generic", "tx-checksum-ipv6", "tx-checksum-sctp"});
  close(fd);
  return reason;
}

}  // namespace

std::string inPrivateLink(const std::function<void()>& body) {
  std::string reason;
  // unshare() moves only the calling thread, so the test's own thread stays where it was.
  std::thread worker([&] {
    reason = setUpLink();
    if (reason.empty()) body();
  });
  worker.join();
  return reason;
}

LinkCapture::LinkCapture() : fd_(socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL))) {
  if (fd_ < 0) throw std::runtime_error(failure("socket(AF_PACKET)"));
  sockaddr_ll addr{};
  addr.sll_family = AF_PACKET;
  addr.sll_protocol = htons(ETH_P_ALL);
  addr.sll_ifindex = int(if_nametoindex(linkName));
  if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd_);
    throw std::runtime_error(failure("bind(AF_PACKET)"));
  }
}

LinkCapture::~LinkCapture() {
  close(fd_);
}

namespace {

U8 ipProtocolOf(const Korva::Pkt& pkt) {
  if (pkt.bytes() >= 20 && (pkt.rawByte(0) >> 4) == 4) return pkt.rawByte(9);
  if (pkt.bytes() >= 40 && (pkt.rawByte(0) >> 4) == 6) return pkt.rawByte(6);
  return Korva::ipProtoUnknown;
}

}  // namespace

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
    U32 size = pkt->maxSharedData();
    sockaddr_ll from{};
    socklen_t fromLen = sizeof from;
    ssize_t got = recvfrom(fd_, pkt->newSharedHeadData(size), size, MSG_DONTWAIT,
                           reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (got < 0 || from.sll_pkttype != PACKET_OUTGOING) continue;
    pkt->delSharedTailData(size - U32(got));
    seen_.push_back(pkt);
  }
  return matching();
}

}  // namespace KorvaTest
