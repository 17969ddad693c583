// `korva demo` step: raw IP Pams between the demo's two namespaces. The system's own ping
// sends echo requests from the client side; a raw ICMP Pam on the server side, whose
// socket filter admits echo requests only, prints each with its arrival interface,
// destination, TTL and TOS. Then a UDP datagram whose IPv4 and UDP headers we built
// ourselves leaves through a header-included Pam and arrives at an ordinary UDP socket,
// which proves the kernel took our headers and checksums.

#include "Command.h"
#include "DemoNs.h"

#include <Korva/IpSocketPam.h>
#include <Korva/UdpHdr.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <linux/filter.h>

#include <cstdio>
#include <iterator>
#include <string>

namespace {

using Korva::IpAddr;
using Korva::IpSocketOptions;
using Mox::Ptr;

constexpr int kEchoRequests = 3;
constexpr Mox::U16 kUdpPort = 7001;
constexpr double kTimeoutSeconds = 5.0;

// The demo's two namespaces, joined by a veth pair.
struct Net {
  KorvaTool::ThrowawayNs server;
  KorvaTool::ThrowawayNs client;
};

// The classic BPF program that keeps ICMP echo requests: the type byte behind an IPv4
// header of whatever length.
void admitEchoRequests(Korva::IpPam& pam) {
  const sock_filter program[] = {
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),        // x = IPv4 header length
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 0),         // a = ICMP type
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 8, 0, 1),  // echo request?
      BPF_STMT(BPF_RET | BPF_K, 0xffff),             // keep it whole
      BPF_STMT(BPF_RET | BPF_K, 0),                  // drop
  };
  for (Mox::U8 i = 0; i < std::size(program); ++i) {
    pam.rxFilterIs(i, Korva::IpFilter(program[i].code, program[i].jt, program[i].jf, program[i].k));
  }
}

// Prints each packet the raw ICMP Pam reads.
class EchoWatcher : public Korva::IpPam::Notifiee {
 public:
  explicit EchoWatcher(Korva::IpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    Korva::IpPam& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      std::printf("  echo request from %s to %s on %s (index %u), TTL %u, TOS 0x%02x, %u bytes\n",
                  pam.rxSrcIpAddr().stringValue().c_str(), pam.rxDstIpAddr().stringValue().c_str(),
                  KorvaTool::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex()).c_str(),
                  pam.rxIfIndex(), pam.rxTTL(), pam.rxTOS(), pkt->bytes());
      ++seen_;
    }
  }
  int seen() const { return seen_; }

 private:
  int seen_ = 0;
};

bool watchPing(const Net& net) {
  Ptr<Korva::IpSocketPam> pam = Korva::ipSocketPamFactory("icmp-watch", Korva::ipProtoIcmp,
                                                          Korva::NamespaceName(net.server.name()));
  pam->optionsIs(
      Korva::ipSocketOptions({IpSocketOptions::ipPktInfo, IpSocketOptions::ipRecvTTL,
                              IpSocketOptions::ipRecvTOS, IpSocketOptions::ipAttachFilter}));
  admitEchoRequests(*pam);
  pam->enabledIs(true);
  EchoWatcher watcher(pam.get());
  std::printf("  ping -c %d -t 42 -Q 0x10 10.99.0.1 from %s\n", kEchoRequests,
              net.client.name().c_str());
  // The kernel answers each request itself; only the requests pass the Pam's filter.
  if (!net.client.exec("ping -c " + std::to_string(kEchoRequests) +
                       " -i 0.2 -W 2 -t 42 -Q 0x10 10.99.0.1")) {
    return false;
  }
  if (!Mox::runUntil([&] { return watcher.seen() == kEchoRequests; }, kTimeoutSeconds)) {
    std::printf("  saw %d of %d echo requests\n", watcher.seen(), kEchoRequests);
    return false;
  }
  return true;
}

// A UDP datagram whose IPv4 and UDP headers are built here, checksums included.
Ptr<Korva::Pkt> udpDatagram(IpAddr src, IpAddr dst, Mox::U16 port, const std::string& payload) {
  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(payload);
  auto* udp = new (pkt->newSharedHeadData(sizeof(Korva::UdpHdr))) Korva::UdpHdr;
  udp->srcPort.valueIs(port);
  udp->dstPort.valueIs(port);
  udp->len.valueIs(Mox::U16(pkt->bytes()));
  auto udpView = Korva::udpHdrWrapperFactory(pkt, 0);
  udpView->ipSrcIs(src);
  udpView->ipDstIs(dst);
  udp->checksum = udpView->computedChecksum();
  auto* ip = new (pkt->newSharedHeadData(sizeof(Korva::IpHdr))) Korva::IpHdr;
  ip->versionIs(4);
  ip->headerBytesIs(sizeof(Korva::IpHdr));
  ip->totalLen.valueIs(Mox::U16(pkt->bytes()));
  ip->ttl.valueIs(64);
  ip->protocolNumIs(Korva::ipProtoUdp);
  ip->srcAddrIs(src);
  ip->dstAddrIs(dst);
  ip->checksum = ip->computedChecksum();
  return pkt;
}

bool sendOwnHeaders(const Net& net) {
  Ptr<Korva::UdpPam> server = Korva::udpPamFactory("udp-server");
  server->netNsIs(Korva::NamespaceName(net.server.name()));
  server->rxPortIs(kUdpPort);
  server->modeIs(Korva::UdpPam::Mode::server);

  Ptr<Korva::IpSocketPam> raw = Korva::ipSocketPamFactory("udp-hdrincl", Korva::ipProtoUdp,
                                                          Korva::NamespaceName(net.client.name()));
  raw->optionsIs(Korva::ipSocketOptions({IpSocketOptions::ipHdrIncl}));
  raw->enabledIs(true);
  const IpAddr client(10, 99, 0, 2), serverAddr(10, 99, 0, 1);
  raw->txDstIpAddrIs(Korva::IpGenAddr(serverAddr));
  const std::string text = "IPv4 and UDP headers built by libKorva";
  raw->txPktIs(udpDatagram(client, serverAddr, kUdpPort, text));
  std::printf("  sent %u bytes through the ipHdrIncl Pam (sent %llu, errors %u)\n",
              unsigned(text.size() + 28), static_cast<unsigned long long>(raw->txPktCount()),
              raw->txErrors());

  Ptr<Korva::Pkt> received;
  if (!Mox::runUntil([&] { return bool(received = server->rxPkt()); }, kTimeoutSeconds)) {
    std::printf("  the UDP socket got nothing within %.0f s\n", kTimeoutSeconds);
    return false;
  }
  std::printf("  UDP socket got \"%s\" from %s port %u: the kernel accepted our checksums\n",
              received->stringValue().c_str(), server->rxSrcIpAddr().stringValue().c_str(),
              server->rxSrcPort());
  return received->stringValue() == text;
}

int runRawIpDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const Net net{KorvaTool::ThrowawayNs("server"), KorvaTool::ThrowawayNs("client")};
  if (!KorvaTool::joinByVeth(net.server, net.client)) return 1;
  std::printf("  namespaces %s (kd0: 10.99.0.1) and %s (kd1: 10.99.0.2)\n",
              net.server.name().c_str(), net.client.name().c_str());
  try {
    if (!watchPing(net) || !sendOwnHeaders(net)) return 1;
  } catch (const Mox::ErrnoException& error) {
    std::printf("  raw IP Pam set-up failed: %s\n", error.description().c_str());
    return 1;
  }
  std::printf("  removing %s and %s\n", net.server.name().c_str(), net.client.name().c_str());
  return 0;
}

const bool registered = KorvaTool::registerDemoStep(
    {35, "raw IP Pams: ping watched, our own headers sent", runRawIpDemo});

}  // namespace
