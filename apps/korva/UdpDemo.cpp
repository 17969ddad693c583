// `korva demo` step: the first packet path end to end. Two throwaway network namespaces
// joined by a veth pair; a UDP Pam server in one, a client in the other, both on this
// thread's one event loop; datagrams both ways over IPv4 and IPv6. Everything made here is
// removed again, also when a step fails.

#include "Command.h"
#include "DemoNs.h"

#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <cstdio>
#include <string>

namespace {

using Korva::UdpPam;
using KorvaTool::ThrowawayNs;
using Mox::Ptr;

constexpr Mox::U16 kServerPort = 7000;
constexpr double kTimeoutSeconds = 5.0;

std::string source(const UdpPam& pam) {
  return pam.ipv6En() ? pam.rxSrcIp6Addr().stringValue() : pam.rxSrcIpAddr().stringValue();
}

std::string destination(const UdpPam& pam) {
  return pam.ipv6En() ? pam.rxDstIp6Addr().stringValue() : pam.rxDstIpAddr().stringValue();
}

Ptr<Korva::Pkt> packetOf(const std::string& text) {
  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(text);
  return pkt;
}

// Prints each datagram a Pam receives; a server answers it to its sender.
class Peer : public UdpPam::Notifiee {
 public:
  Peer(const char* role, const Ptr<UdpPam>& pam, bool answers) : role_(role), answers_(answers) {
    notifierIs(pam.get());
  }
  void onReadableCount() override {
    UdpPam& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      const std::string text = pkt->stringValue();
      std::printf("  %s got \"%s\" from %s port %u to %s on %s (index %u)\n", role_, text.c_str(),
                  source(pam).c_str(), pam.rxSrcPort(), destination(pam).c_str(),
                  KorvaTool::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex()).c_str(),
                  pam.rxIfIndex());
      ++received_;
      if (!answers_) continue;
      if (pam.ipv6En()) {
        pam.txDstIp6AddrIs(pam.rxSrcIp6Addr());
      } else {
        pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      }
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(packetOf("reply to " + text));
    }
  }
  int received() const { return received_; }

 private:
  const char* role_;
  bool answers_;
  int received_ = 0;
};

Ptr<UdpPam> newPam(const std::string& name, const ThrowawayNs& ns, bool v6) {
  Ptr<UdpPam> pam = Korva::udpPamFactory(name);
  pam->ipv6EnIs(v6);
  pam->netNsIs(Korva::NamespaceName(ns.name()));
  return pam;
}

// One request and its answer in one family; false when either did not arrive in time.
bool exchange(const ThrowawayNs& serverNs, const ThrowawayNs& clientNs, bool v6) {
  const char* family = v6 ? "IPv6" : "IPv4";
  Ptr<UdpPam> server = newPam(std::string("server-") + family, serverNs, v6);
  server->rxPortIs(kServerPort);
  server->modeIs(UdpPam::Mode::server);
  Ptr<UdpPam> client = newPam(std::string("client-") + family, clientNs, v6);
  if (v6) {
    client->txDstIp6AddrIs(Korva::Ip6Addr("fd99::1"));
  } else {
    client->txDstIpAddrIs(Korva::IpAddr(10, 99, 0, 1));
  }
  client->txPortIs(kServerPort);
  client->modeIs(UdpPam::Mode::client);
  Peer serverSide("server", server, true);
  Peer clientSide("client", client, false);

  client->txPktIs(packetOf(std::string("hello over ") + family));
  const bool answered = Mox::runUntil([&] { return clientSide.received() == 1; }, kTimeoutSeconds);
  std::printf("  %s: client sent %llu, server received %llu and sent %llu, client received %llu\n",
              family, static_cast<unsigned long long>(client->txPkts()),
              static_cast<unsigned long long>(server->rxPkts()),
              static_cast<unsigned long long>(server->txPkts()),
              static_cast<unsigned long long>(client->rxPkts()));
  if (!answered) std::printf("  no answer over %s within %.0f s\n", family, kTimeoutSeconds);
  return answered;
}

int runUdpDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const ThrowawayNs serverNs("server");
  const ThrowawayNs clientNs("client");
  if (!KorvaTool::joinByVeth(serverNs, clientNs)) return 1;
  std::printf("  namespaces %s (kd0: 10.99.0.1, fd99::1) and %s (kd1: 10.99.0.2, fd99::2)\n",
              serverNs.name().c_str(), clientNs.name().c_str());
  try {
    if (!exchange(serverNs, clientNs, false) || !exchange(serverNs, clientNs, true)) return 1;
  } catch (const Mox::ErrnoException& error) {
    std::printf("  UDP Pam set-up failed: %s\n", error.description().c_str());
    return 1;
  }
  std::printf("  removing %s and %s\n", serverNs.name().c_str(), clientNs.name().c_str());
  return 0;
}

const bool registered =
    KorvaTool::registerDemoStep({30, "UDP Pams across two namespaces", runUdpDemo});

}  // namespace
