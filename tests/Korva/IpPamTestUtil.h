#pragma once
// What the raw IP Pam tests share: a reader that records each packet with what it carried,
// socket-option read-back, and packets from text.

#include <Korva/IpPam.h>
#include <Korva/UdpHdr.h>
#include <Mox/Activity.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "SocketTestUtil.h"

namespace IpPamTest {

struct Arrival {
  std::string bytes;
  Korva::IpGenAddr src;
  Korva::IpGenAddr dst;
  Mox::U32 ifIndex;
  Mox::U8 ttl;
  Mox::U8 tos;
};

// Reads every packet a Pam reports, as an agent's reactor does.
struct Receiver : Korva::IpPam::Notifiee {
  explicit Receiver(Korva::IpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    Korva::IpPam& pam = *notifier();
    while (Mox::Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      arrivals.push_back({pkt->stringValue(), pam.rxSrcIpAddr(), pam.rxDstIpAddr(), pam.rxIfIndex(),
                          pam.rxTTL(), pam.rxTOS()});
    }
  }
  // Runs the loop until a packet that `wanted` accepts has come, at most 5 s; its index or -1.
  int waitFor(const std::function<bool(const Arrival&)>& wanted) {
    size_t seen = 0;
    int found = -1;
    Mox::runUntil(
        [&] {
          for (; found < 0 && seen < arrivals.size(); ++seen) {
            if (wanted(arrivals[seen])) found = int(seen);
          }
          return found >= 0;
        },
        5.0);
    return found;
  }
  std::vector<Arrival> arrivals;
};

inline int socketOption(const Korva::IpPam& pam, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(pam.fileDesc()->descriptor(), level, option, &value, &length);
  return value;
}

struct ExpectedOption {
  int level, option, value;
};

inline void expectOptions(const Korva::IpPam& pam, std::initializer_list<ExpectedOption> table) {
  for (const ExpectedOption& e : table) {
    EXPECT_EQ(socketOption(pam, e.level, e.option), e.value) << "option " << e.option;
  }
}

using SocketTest::packetOf;

// A UDP datagram from port 40000 to `port`, its checksum computed over the addresses it
// will carry (IpAddr or Ip6Addr); the caller puts the IP header in front.
template <class Address>
Mox::Ptr<Korva::Pkt> udpDatagram(const Address& src, const Address& dst, Mox::U16 port,
                                 const std::string& payload) {
  Mox::Ptr<Korva::Pkt> pkt = packetOf(payload);
  auto* udp = new (pkt->newSharedHeadData(sizeof(Korva::UdpHdr))) Korva::UdpHdr;
  udp->srcPort.valueIs(40000);
  udp->dstPort.valueIs(port);
  udp->len.valueIs(Mox::U16(pkt->bytes()));
  auto view = [&] {
    if constexpr (std::is_same_v<Address, Korva::IpAddr>) {
      return Korva::udpHdrWrapperFactory(pkt, 0);
    } else {
      return Korva::udpHdrWrapperIpv6Factory(pkt, 0);
    }
  }();
  view->ipSrcIs(src);
  view->ipDstIs(dst);
  udp->checksum = view->computedChecksum();
  return pkt;
}

// A Python UDP socket bound to `address` and `port` ("AF_INET" or "AF_INET6") that prints
// the first datagram it gets and its sender: an ordinary receiver, not our code.
inline std::string udpReader(const std::string& family, const std::string& address, int port) {
  return "import socket\n"
         "s = socket.socket(socket." +
         family +
         ", socket.SOCK_DGRAM)\n"
         "s.bind(('" +
         address + "', " + std::to_string(port) +
         "))\n"
         "s.settimeout(5)\n"
         "print('ready', flush=True)\n"
         "data, peer = s.recvfrom(2048)\n"
         "print(data.decode() + ' from ' + peer[0], flush=True)\n";
}

// One throwaway namespace for the tests that need no peer.
class NamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ns_ = std::make_unique<SocketTest::ScopedNs>("ip");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    Mox::ActivityManagerConfig::current();  // the loop's own descriptors exist before counting
  }
  std::unique_ptr<SocketTest::ScopedNs> ns_;
};

}  // namespace IpPamTest
