// `korva demo` step: DTLS across the demo's two namespaces. A throwaway CA signs a server
// and a client certificate made for the demo; a UdpPamDtlsServer echoes what a
// UdpPamDtlsClient sends, the first packet before there is a handshake. Runs DTLS 1.2 and
// then 1.0; the certificates, Pams and namespaces are removed whatever happens.

#include "Command.h"
#include "DemoCertificates.h"
#include "DemoNs.h"

#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <cstdio>
#include <string>

namespace {

using Korva::UdpPamDtls;
using KorvaTool::DemoCertificates;
using KorvaTool::ThrowawayNs;
using Mox::Ptr;

constexpr Mox::U16 kServerPort = 7100;
constexpr double kTimeoutSeconds = 5.0;

// Prints each record a Pam reads; a server echoes it to its sender.
class Peer : public UdpPamDtls::Notifiee {
 public:
  Peer(const char* role, UdpPamDtls* pam, bool echoes) : role_(role), echoes_(echoes) {
    notifierIs(pam);
  }
  void onReadableDataCount() override {
    UdpPamDtls& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      std::printf("  %s got \"%s\" from %s port %u\n", role_, pkt->stringValue().c_str(),
                  pam.rxSrcIpAddr().stringValue().c_str(), pam.rxSrcPort());
      ++received_;
      if (!echoes_) continue;
      pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(pkt);
    }
  }
  int received() const { return received_; }

 private:
  const char* role_;
  bool echoes_;
  int received_ = 0;
};

bool exchange(const DemoCertificates& certificates, const ThrowawayNs& serverNs,
              const ThrowawayNs& clientNs, Mox::U8 version, const char* versionText) {
  Ptr<Korva::UdpPamDtlsServer> server = Korva::udpPamDtlsServerFactory(
      "demo-dtls-server", version, "DEFAULT", certificates.path("server.pem"),
      certificates.path("ca.pem"), "");
  server->netNsIs(Korva::NamespaceName(serverNs.name()));
  server->rxPortIs(kServerPort);
  server->modeIs(Korva::UdpPam::Mode::server);
  Ptr<Korva::UdpPamDtlsClient> client =
      Korva::udpPamDtlsClientFactory("demo-dtls-client", version, "DEFAULT",
                                     certificates.path("client.pem"), certificates.path("ca.pem"));
  client->netNsIs(Korva::NamespaceName(clientNs.name()));
  client->txDstIpAddrIs(Korva::IpAddr(10, 99, 0, 1));
  client->txPortIs(kServerPort);
  client->modeIs(Korva::UdpPam::Mode::client);
  Peer serverSide("server", server.get(), true);
  Peer clientSide("client", client.get(), false);

  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string("hello over DTLS ") + versionText);
  client->txPktIs(pkt);
  std::printf("  DTLS %s: client sent its first packet before the handshake\n", versionText);
  const bool answered = Mox::runUntil([&] { return clientSide.received() == 1; }, kTimeoutSeconds);
  std::printf("  DTLS %s: server has %zu session(s); client sent %llu, server received %llu\n",
              versionText, server->udpPamDtlsSessionColl().size(),
              static_cast<unsigned long long>(client->txPkts()),
              static_cast<unsigned long long>(server->rxPkts()));
  if (!answered)
    std::printf("  no answer over DTLS %s within %.0f s\n", versionText, kTimeoutSeconds);
  client->destroy();
  server->destroy();
  return answered;
}

int runDtlsDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const DemoCertificates certificates;
  if (!certificates.made()) {
    std::printf("  could not make the demo's certificates\n");
    return 1;
  }
  std::printf("  throwaway CA, server and client certificates in %s\n",
              certificates.path("").c_str());
  const ThrowawayNs serverNs("dtls-server");
  const ThrowawayNs clientNs("dtls-client");
  if (!KorvaTool::joinByVeth(serverNs, clientNs)) return 1;
  try {
    if (!exchange(certificates, serverNs, clientNs, Korva::DtlsConstants::dtlsV12(), "1.2") ||
        !exchange(certificates, serverNs, clientNs, Korva::DtlsConstants::dtlsV1(), "1.0")) {
      return 1;
    }
  } catch (const std::exception& error) {
    std::printf("  DTLS set-up failed: %s\n", error.what());
    return 1;
  }
  std::printf("  removing the certificates, %s and %s\n", serverNs.name().c_str(),
              clientNs.name().c_str());
  return 0;
}

const bool registered =
    KorvaTool::registerDemoStep({35, "DTLS across two namespaces", runDtlsDemo});

}  // namespace
