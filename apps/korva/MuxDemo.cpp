// `korva demo` step: Pams shared and Pams joined in process. Two throwaway namespaces
// joined by a veth pair hold one UDP Pam each; on each side three in-process users share
// that one UDP Pam through a PamKeyMuxDemux (each user reaches the multiplexer through a
// PamConnector of its own), and user k on one side talks to user k on the other. Then two
// in-process agents talk through one PamConnector with no socket at all.

#include "Command.h"
#include "DemoNs.h"

#include <Korva/PamConnector.h>
#include <Korva/PamMuxDemux.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Korva::PamConnector;
using Korva::PamConnectorPam;
using Korva::UdpPam;
using KorvaTool::ThrowawayNs;
using Mox::Ptr;

constexpr Mox::U16 kHubPort = 7100;
constexpr Mox::U32 kUsers = 3;
constexpr double kTimeoutSeconds = 5.0;

Ptr<Korva::Pkt> packetOf(const std::string& text) {
  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(text);
  return pkt;
}

Ptr<PamConnector> newConnector(const std::string& name) {
  return Korva::PamConnectorIs(Mox::ActivityConfig::current(), Mox::make<Mox::Clock>(name));
}

// An in-process agent on one Pam: prints what it receives, and may answer it.
class Agent : public Korva::Pam::Notifiee {
 public:
  Agent(std::string name, const Ptr<Korva::Pam>& pam, bool answers)
      : name_(std::move(name)), answers_(answers) {
    notifierIs(pam.get());
  }
  void onReadableCount() override {
    while (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) {
      const std::string text = pkt->stringValue();
      std::printf("  %s received \"%s\"\n", name_.c_str(), text.c_str());
      ++received_;
      if (answers_) send("answer from " + name_ + " to \"" + text + "\"");
    }
  }
  void send(const std::string& text) { notifier()->txPktIs(packetOf(text)); }
  int received() const { return received_; }

 private:
  std::string name_;
  bool answers_;
  int received_ = 0;
};

// One namespace's side: its UDP Pam, the multiplexer on it, and a user per key, each
// joined to the multiplexer by a connector (pam0 on the multiplexer, pam1 for the user).
struct Side {
  Side(const std::string& label, const Ptr<UdpPam>& udp, bool answers) : udp(udp) {
    mux = Korva::PamKeyMuxDemuxIs(udp);
    for (Mox::U32 key = 1; key <= kUsers; ++key) {
      connectors.push_back(newConnector(label + "-user" + std::to_string(key)));
      Ptr<PamConnectorPam> muxEnd = connectors.back()->pam("pam0");
      mux->manyPamIs(key, muxEnd);
      mux->manyPamSmIs(key, muxEnd);
      users.push_back(std::make_unique<Agent>(label + " user " + std::to_string(key),
                                              connectors.back()->pam("pam1"), answers));
    }
    mux->modeIs(Korva::PamMuxDemux::Mode::both);
  }
  int received() const {
    int total = 0;
    for (const auto& user : users) total += user->received();
    return total;
  }
  Ptr<UdpPam> udp;
  Ptr<Korva::PamKeyMuxDemux> mux;
  std::vector<Ptr<PamConnector>> connectors;
  std::vector<std::unique_ptr<Agent>> users;
};

Ptr<UdpPam> newUdpPam(const std::string& name, const ThrowawayNs& ns) {
  Ptr<UdpPam> pam = Korva::udpPamFactory(name);
  pam->netNsIs(Korva::NamespaceName(ns.name()));
  return pam;
}

bool sharedUdpPams(const ThrowawayNs& hubNs, const ThrowawayNs& remoteNs) {
  Ptr<UdpPam> hubUdp = newUdpPam("hub", hubNs);
  hubUdp->rxPortIs(kHubPort);
  hubUdp->modeIs(UdpPam::Mode::server);
  Ptr<UdpPam> remoteUdp = newUdpPam("remote", remoteNs);
  remoteUdp->txDstIpAddrIs(Korva::IpAddr(10, 99, 0, 1));
  remoteUdp->txPortIs(kHubPort);
  remoteUdp->modeIs(UdpPam::Mode::client);
  Side hub("hub", hubUdp, true);
  Side remote("remote", remoteUdp, false);

  // The server learns where to answer from the first datagram it reads.
  struct AnswerTo : UdpPam::Notifiee {
    explicit AnswerTo(UdpPam* pam) { notifierIs(pam); }
    void onRxSrcPort() override {
      notifier()->txDstIpAddrIs(notifier()->rxSrcIpAddr());
      notifier()->txPortIs(notifier()->rxSrcPort());
    }
  } answerTo(hubUdp.get());

  for (Mox::U32 key = 1; key <= kUsers; ++key) {
    remote.users[key - 1]->send("hello from remote user " + std::to_string(key));
  }
  const bool answered = Mox::runUntil(
      [&] { return hub.received() == int(kUsers) && remote.received() == int(kUsers); },
      kTimeoutSeconds);
  std::printf(
      "  one UDP Pam per side: hub sent %llu and received %llu datagrams, remote sent "
      "%llu and received %llu\n",
      static_cast<unsigned long long>(hubUdp->txPkts()),
      static_cast<unsigned long long>(hubUdp->rxPkts()),
      static_cast<unsigned long long>(remoteUdp->txPkts()),
      static_cast<unsigned long long>(remoteUdp->rxPkts()));
  if (!answered) std::printf("  not every user was answered within %.0f s\n", kTimeoutSeconds);
  return answered;
}

bool connectedAgents() {
  Ptr<PamConnector> connector = newConnector("agents");
  Agent alice("agent alice (pam0)", connector->pam("pam0"), false);
  Agent bob("agent bob (pam1)", connector->pam("pam1"), true);
  alice.send("ping 1");
  alice.send("ping 2");
  const bool done = Mox::runUntil([&] { return alice.received() == 2; }, kTimeoutSeconds);
  std::printf("  connector: bob received %d, alice received %d, drops %u + %u\n", bob.received(),
              alice.received(), connector->pam("pam0")->rxDrops(),
              connector->pam("pam1")->rxDrops());
  return done;
}

int runMuxDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const ThrowawayNs hubNs("hub");
  const ThrowawayNs remoteNs("remote");
  if (!KorvaTool::joinByVeth(hubNs, remoteNs)) return 1;
  std::printf("  namespaces %s (hub, 10.99.0.1 port %u) and %s (remote, 10.99.0.2)\n",
              hubNs.name().c_str(), kHubPort, remoteNs.name().c_str());
  try {
    if (!sharedUdpPams(hubNs, remoteNs)) return 1;
  } catch (const Mox::ErrnoException& error) {
    std::printf("  UDP Pam set-up failed: %s\n", error.description().c_str());
    return 1;
  }
  std::printf("  removing %s and %s\n", hubNs.name().c_str(), remoteNs.name().c_str());
  return connectedAgents() ? 0 : 1;
}

const bool registered = KorvaTool::registerDemoStep(
    {40, "Users sharing a UDP Pam through a multiplexer; agents on a connector", runMuxDemo});

}  // namespace
