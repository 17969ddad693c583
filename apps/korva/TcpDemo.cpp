// `korva demo` step: TCP connections and framed PDUs across two throwaway namespaces. The
// client starts before its server exists and backs off, printing each failed attempt; then
// the server listens, the client connects and the two exchange framed PDUs: one written by
// the sender in many small pieces, several in one write, each echoed back whole.

#include "Command.h"
#include "DemoNs.h"
#include "Pdu.h"

#include <Korva/SimpleTcpPduPam.h>
#include <Korva/TcpClientServer.h>
#include <Mox/Activity.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Korva::IpGenAddr;
using Korva::Port;
using KorvaTool::ThrowawayNs;
using Mox::Ptr;
using Status = Korva::TcpClientStatus::ConnectionStatus;

constexpr Mox::U16 kPort = 7001;
constexpr double kTimeoutSeconds = 10.0;

// Prints the client's failed attempts and its connection, with times from the start.
class ClientWatch : public Korva::TcpClientStatus::Notifiee {
 public:
  explicit ClientWatch(Korva::TcpClientStatus* status) : start_(Mox::now()) { notifierIs(status); }
  void onRetryTimerNext() override {
    const auto& status = *notifier();
    if (status.connectionStatus() != Status::failed) return;
    ++failures_;
    std::printf("  client: attempt %u at %.3f s failed: %s; next in %u s\n",
                status.connectionAttemptCount(), Mox::now() - start_, status.reason().c_str(),
                status.retryTimerInterval());
  }
  void onConnectionStatus() override {
    const auto& status = *notifier();
    if (status.connectionStatus() != Status::connected) return;
    std::printf("  client: attempt %u at %.3f s connected from %s port %u\n",
                status.connectionAttemptCount(), Mox::now() - start_,
                status.connSocket().srcIpAddr().stringValue().c_str(),
                unsigned(status.connSocket().srcPort().value()));
  }
  int failures() const { return failures_; }

 private:
  double start_;
  int failures_ = 0;
};

// Prints each PDU an end receives; the server's end echoes it.
class PduEnd : public Korva::TcpPduPam::Notifiee {
 public:
  PduEnd(const char* role, const Ptr<Korva::TcpFd>& fd, bool echoes)
      : role_(role), echoes_(echoes), pam_(Korva::simpleTcpPduPamFactory(fd)) {
    notifierIs(pam_.get());
    pam_->enabledIs(true);
  }
  ~PduEnd() override { pam_->cleanup(); }
  void onReadable() override {
    if (!pam_->readable()) return;
    Ptr<Korva::Pkt> pdu = pam_->rxPkt();
    std::printf("  %s got PDU %s\n", role_, KorvaTool::describePdu(*pdu).c_str());
    ++received_;
    if (echoes_ && pam_->writable()) pam_->txPktIs(pdu);
  }
  int received() const { return received_; }

 private:
  const char* role_;
  bool echoes_;
  Ptr<Korva::SimpleTcpPduPam> pam_;
  int received_ = 0;
};

// Writes `bytes` on the socket in pieces of `piece` bytes, each its own segment.
bool writeInPieces(int fd, const std::string& bytes, size_t piece) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const size_t n = std::min(piece, bytes.size() - at);
    if (send(fd, bytes.data() + at, n, MSG_NOSIGNAL) != ssize_t(n)) return false;
  }
  return true;
}

int runTcpDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const ThrowawayNs serverNs("tcp-server");
  const ThrowawayNs clientNs("tcp-client");
  if (!KorvaTool::joinByVeth(serverNs, clientNs)) return 1;
  auto wheel = Mox::make<Pylon::TimerWheel>("demo");

  auto clientConfig = Korva::tcpClientConfigFactory("demo", IpGenAddr("10.99.0.1"), Port(kPort));
  clientConfig->networkNamespaceIs(Korva::NamespaceName(clientNs.name()));
  clientConfig->exponentialBackoffRetriesIs(3);
  auto clientStatus = Korva::tcpClientStatusFactory("demo");
  ClientWatch watch(clientStatus.get());
  auto client = Mox::make<Korva::TcpClientSm>(wheel, 1, clientConfig, clientStatus);
  std::printf("  client in %s connects to 10.99.0.1 port %u; no server yet\n",
              clientNs.name().c_str(), unsigned(kPort));
  client->startConnection();
  if (!Mox::runUntil([&] { return watch.failures() == 2; }, kTimeoutSeconds)) return 1;

  auto serverConfig = Korva::tcpServerConfigFactory("demo", IpGenAddr("10.99.0.1"), Port(kPort));
  serverConfig->networkNamespaceIs(Korva::NamespaceName(serverNs.name()));
  auto serverStatus = Korva::tcpServerStatusFactory("demo");
  auto server = Mox::make<Korva::TcpServerSm>(wheel, serverConfig, serverStatus);
  if (!server->startListener()) {
    std::printf("  server: %s\n", serverStatus->reason().c_str());
    return 1;
  }
  std::printf("  server in %s: %s on 10.99.0.1 port %u\n", serverNs.name().c_str(),
              serverStatus->reason().c_str(), unsigned(kPort));
  if (!Mox::runUntil(
          [&] {
            return clientStatus->connectionStatus() == Status::connected &&
                   serverStatus->connSocketSize() > 0;
          },
          kTimeoutSeconds)) {
    std::printf("  no connection within %.0f s: %s\n", kTimeoutSeconds,
                clientStatus->reason().c_str());
    return 1;
  }
  const Korva::TcpConnSocket accepted = serverStatus->getConnSocket();
  std::printf("  server accepted %s port %u\n", accepted.dstIpAddr().stringValue().c_str(),
              unsigned(accepted.dstPort().value()));
  PduEnd serverEnd("server", accepted.fd(), true);
  const Ptr<Korva::TcpFd> clientFd = clientStatus->connSocket().fd();
  PduEnd clientEnd("client", clientFd, false);

  const std::string pieces =
      KorvaTool::framedPdu("written in pieces of 7 bytes: " + std::string(120, '.') + " end");
  std::printf("  client writes one PDU of %zu bytes in %zu pieces\n", pieces.size(),
              (pieces.size() + 6) / 7);
  std::string several;
  for (const char* body : {"first of three in one write", "second", "third"}) {
    several += KorvaTool::framedPdu(body);
  }
  std::printf("  client writes three PDUs (%zu bytes) in one write\n", several.size());
  if (!writeInPieces(clientFd->descriptor(), pieces, 7) ||
      !writeInPieces(clientFd->descriptor(), several, several.size())) {
    std::printf("  write failed\n");
    return 1;
  }
  const bool echoed = Mox::runUntil([&] { return clientEnd.received() == 4; }, kTimeoutSeconds);
  std::printf("  server received %d PDUs, client received %d echoes\n", serverEnd.received(),
              clientEnd.received());
  std::printf("  removing %s and %s\n", serverNs.name().c_str(), clientNs.name().c_str());
  return echoed ? 0 : 1;
}

const bool registered =
    KorvaTool::registerDemoStep({40, "TCP: back-off, connection and framed PDUs", runTcpDemo});

}  // namespace
