// korva dtls: a DTLS server that prints and echoes every record, and a client that sends
// each line of standard input as one record and prints each reply, for operators testing
// a peer.

#include "Command.h"

#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace KorvaTool {

namespace {

using Korva::UdpPamDtls;
using Mox::Ptr;

// How long the client waits for the replies still due once its input has ended.
constexpr double kReplyWaitSeconds = 2.0;

struct DtlsOptions {
  std::string netns;
  std::string addr = "0.0.0.0";
  std::string host;
  Mox::U16 port = 0;
  std::string cert;
  std::string key;
  std::string ca;
  std::string dhparams;
  std::string version = "1.2";
};

// The library takes certificate and key from one file; separate files are joined into a
// private temporary one for as long as the Pam is being made.
class CertKeyFile {
 public:
  CertKeyFile(const std::string& cert, const std::string& key) : path_(cert) {
    if (cert == key) return;
    std::ifstream certIn(cert), keyIn(key);
    if (!certIn || !keyIn) {
      throw Mox::Exception("cannot read " + std::string(certIn ? key : cert));
    }
    char name[] = "/tmp/korva-dtls-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) throw Mox::Exception("mkstemp");
    close(fd);
    path_ = temporary_ = name;
    std::ofstream(path_) << certIn.rdbuf() << "\n" << keyIn.rdbuf();
  }
  ~CertKeyFile() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string temporary_;
};

Mox::U8 versionOf(const DtlsOptions& options) {
  return options.version == "1.0" ? Korva::DtlsConstants::dtlsV1()
                                  : Korva::DtlsConstants::dtlsV12();
}

std::string peerOf(const UdpPamDtls& pam) {
  return pam.rxSrcIpAddr().stringValue() + ":" + std::to_string(pam.rxSrcPort());
}

// The loop a signal stops (stop() is safe in a signal handler).
Mox::ActivityManagerConfig* servingLoop = nullptr;
void stopOnSignal(int) {
  servingLoop->stop();
}

// Prints every record and sends it back to its sender.
struct Echo : UdpPamDtls::Notifiee {
  explicit Echo(UdpPamDtls* pam) { notifierIs(pam); }
  void onReadableDataCount() override {
    UdpPamDtls& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      std::printf("%s: %s\n", peerOf(pam).c_str(), pkt->stringValue().c_str());
      std::fflush(stdout);
      pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(pkt);
    }
  }
};

int serve(const DtlsOptions& options) {
  const CertKeyFile certKey(options.cert, options.key);
  Ptr<Korva::UdpPamDtlsServer> pam = Korva::udpPamDtlsServerFactory(
      "korva-dtls", versionOf(options), "DEFAULT", certKey.path(), options.ca, options.dhparams);
  if (!options.netns.empty()) pam->netNsIs(Korva::NamespaceName(options.netns));
  pam->rxIpAddrIs(Korva::IpAddr(options.addr));
  pam->rxPortIs(options.port);
  pam->modeIs(Korva::UdpPam::Mode::server);
  Echo echo(pam.get());
  std::printf("listening on %s:%u (DTLS %s)\n", options.addr.c_str(), pam->rxPortLocal(),
              options.version.c_str());
  std::fflush(stdout);
  servingLoop = Mox::ActivityManagerConfig::current().get();
  signal(SIGINT, stopOnSignal);
  signal(SIGTERM, stopOnSignal);
  servingLoop->run();
  pam->destroy();
  return 0;
}

// Sends each line of standard input as one record and prints each reply. The first line
// opens the session; the others wait until it is connected (only one packet waits for a
// handshake).
class LineClient : public UdpPamDtls::Notifiee {
 public:
  explicit LineClient(UdpPamDtls* pam)
      : input_(Mox::make<Mox::FileDescriptor>("stdin", dup(0))), reader_(this) {
    notifierIs(pam);
  }
  void onReadableDataCount() override {
    while (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) {
      std::printf("%s\n", pkt->stringValue().c_str());
      std::fflush(stdout);
      ++replies_;
    }
    sendLines();
  }
  // All input was read and sent.
  bool inputDone() const { return ended_ && pending_.empty(); }
  bool repliesDue() const { return replies_ < sent_; }
  // Nothing was sent, or the session with the server is up.
  bool sessionUp() const { return sent_ == 0 || connected(); }

 private:
  bool connected() const {
    const UdpPamDtls& pam = *notifier();
    const auto session =
        pam.udpPamDtlsSession(Korva::SessionPeer(pam.txDstIpAddr(), Korva::Port(pam.txPort())));
    return session && session->state() == Korva::UdpPamDtlsSession::State::connected;
  }
  struct Reader : Mox::FileDescriptor::Notifiee {
    explicit Reader(LineClient* client) : client(client) { notifierIs(client->input_); }
    void onReadableCount() override { client->readInput(); }
    LineClient* client;
  };

  void readInput() {
    char buffer[4096];
    const ssize_t n = read(input_->descriptor(), buffer, sizeof buffer);
    if (n > 0) {
      pending_.append(buffer, size_t(n));
    } else if (n == 0 || errno != EAGAIN) {
      ended_ = true;
      input_->notifyOnReadableIs(false);
      if (!pending_.empty() && pending_.back() != '\n') pending_ += '\n';
    }
    sendLines();
  }
  void sendLines() {
    for (size_t end; sessionUp() && (end = pending_.find('\n')) != std::string::npos;) {
      Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
      pkt->stringValueIs(pending_.substr(0, end));
      pending_.erase(0, end + 1);
      ++sent_;
      notifier()->txPktIs(pkt);
    }
  }

  Ptr<Mox::FileDescriptor> input_;
  Reader reader_;
  std::string pending_;
  bool ended_ = false;
  size_t sent_ = 0;
  size_t replies_ = 0;
};

int connect(const DtlsOptions& options) {
  const CertKeyFile certKey(options.cert, options.key);
  Ptr<Korva::UdpPamDtlsClient> pam = Korva::udpPamDtlsClientFactory(
      "korva-dtls", versionOf(options), "DEFAULT", certKey.path(), options.ca);
  if (!options.netns.empty()) pam->netNsIs(Korva::NamespaceName(options.netns));
  pam->txDstIpAddrIs(Korva::IpAddr(options.host));
  pam->txPortIs(options.port);
  pam->modeIs(Korva::UdpPam::Mode::client);
  LineClient client(pam.get());
  const auto failed = [&] { return pam->errorPeer() != Korva::SessionPeer(); };
  Mox::runUntil([&] { return client.inputDone() || failed(); }, 1e9);
  Mox::runUntil([&] { return !client.repliesDue() || failed(); }, kReplyWaitSeconds);
  const bool ok = !failed() && client.sessionUp();
  pam->destroy();
  if (!ok) {
    std::fprintf(stderr, "korva dtls connect: the DTLS session with %s:%u failed\n",
                 options.host.c_str(), options.port);
  }
  return ok ? 0 : 1;
}

int run(int (*command)(const DtlsOptions&), const DtlsOptions& options) {
  try {
    return command(options);
  } catch (const Mox::ErrnoException& error) {
    std::fprintf(stderr, "korva dtls: %s\n", error.description().c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "korva dtls: %s\n", error.what());
  }
  return 1;
}

void addCommon(CLI::App* command, DtlsOptions& options) {
  command->add_option("--netns", options.netns, "network namespace (default: this one)");
  command->add_option("--cert", options.cert, "PEM certificate")->required();
  command->add_option("--key", options.key, "PEM private key")->required();
  command->add_option("--ca", options.ca, "PEM file of trusted CAs")->required();
  command->add_option("--version", options.version, "DTLS version")
      ->check(CLI::IsMember({"1.0", "1.2"}));
}

void setupDtls(CLI::App& app, int& exitStatus) {
  auto* dtls = app.add_subcommand("dtls", "DTLS over UDP: an echo server and a line client");
  dtls->require_subcommand(1);
  static DtlsOptions options;

  auto* serveCommand = dtls->add_subcommand("serve", "Print and echo every record");
  addCommon(serveCommand, options);
  serveCommand->add_option("--addr", options.addr, "local IPv4 address");
  serveCommand->add_option("--port", options.port, "local port")->required();
  serveCommand->add_option("--dhparams", options.dhparams, "PEM DH parameters");
  serveCommand->callback([&exitStatus] { exitStatus = run(serve, options); });

  auto* connectCommand =
      dtls->add_subcommand("connect", "Send each input line as a record, print each reply");
  addCommon(connectCommand, options);
  connectCommand->add_option("host", options.host, "server IPv4 address")->required();
  connectCommand->add_option("port", options.port, "server port")->required();
  connectCommand->callback([&exitStatus] { exitStatus = run(connect, options); });
}

const bool registered = registerCommand(setupDtls);

}  // namespace

}  // namespace KorvaTool
