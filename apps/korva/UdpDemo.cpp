// `korva demo` step: the first packet path end to end. Two throwaway network namespaces
// joined by a veth pair; a UDP Pam server in one, a client in the other, both on this
// thread's one event loop; datagrams both ways over IPv4 and IPv6. Everything made here is
// removed again, also when a step fails.

#include "Command.h"

#include <Korva/NetnsUtils.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <linux/capability.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Korva::UdpPam;
using Mox::Ptr;

constexpr Mox::U16 kServerPort = 7000;
constexpr double kTimeoutSeconds = 5.0;

bool hasCapability(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  return data[capability / 32].effective & (1u << (capability % 32));
}

// A named namespace that is deleted, with the links in it, when this goes.
class ThrowawayNs {
 public:
  explicit ThrowawayNs(const std::string& role)
      : name_("korva-demo-" + role + "-" + std::to_string(getpid())) {
    created_ = Korva::netNsAdd(name_) == 0;
  }
  ~ThrowawayNs() {
    if (created_) Korva::netNsDelete(name_);
  }
  ThrowawayNs(const ThrowawayNs&) = delete;
  ThrowawayNs& operator=(const ThrowawayNs&) = delete;

  bool created() const { return created_; }
  const std::string& name() const { return name_; }
  // Runs `ip -n <ns> <command>`; says which command failed.
  bool ip(const std::string& command) const {
    const std::string line = "ip -n " + name_ + " " + command;
    if (std::system((line + " >/dev/null 2>&1").c_str()) == 0) return true;
    std::printf("  failed: %s\n", line.c_str());
    return false;
  }

 private:
  std::string name_;
  bool created_ = false;
};

// Addresses one veth end, host 1 or 2 of 10.99.0.0/24 and fd99::/64. `nodad` makes the
// IPv6 address usable at once instead of after duplicate detection.
bool configureEnd(const ThrowawayNs& ns, const std::string& link, int host) {
  const std::string h = std::to_string(host);
  return ns.ip("addr add 10.99.0." + h + "/24 dev " + link) &&
         ns.ip("addr add fd99::" + h + "/64 dev " + link + " nodad") &&
         ns.ip("link set " + link + " up") && ns.ip("link set lo up");
}

// The name of an interface index in the namespace of the Pam's socket.
std::string interfaceName(const UdpPam& pam, Mox::U32 index) {
  ifreq request{};
  request.ifr_ifindex = int(index);
  if (ioctl(pam.fileDesc()->descriptor(), SIOCGIFNAME, &request) != 0) return "?";
  return request.ifr_name;
}

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
                  interfaceName(pam, pam.rxIfIndex()).c_str(), pam.rxIfIndex());
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
  struct Need {
    int capability;
    const char* name;
    const char* purpose;
  };
  for (const Need& need : {Need{CAP_SYS_ADMIN, "CAP_SYS_ADMIN", "create network namespaces"},
                           Need{CAP_NET_ADMIN, "CAP_NET_ADMIN", "create veth links"}}) {
    if (!hasCapability(need.capability)) {
      std::printf("  missing capability %s (needed to %s); run as root\n", need.name, need.purpose);
      return 1;
    }
  }
  const ThrowawayNs serverNs("server");
  const ThrowawayNs clientNs("client");
  if (!serverNs.created() || !clientNs.created()) {
    std::printf("  could not create the namespaces\n");
    return 1;
  }
  if (!serverNs.ip("link add kd0 type veth peer name kd1 netns " + clientNs.name()) ||
      !configureEnd(serverNs, "kd0", 1) || !configureEnd(clientNs, "kd1", 2)) {
    return 1;
  }
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
