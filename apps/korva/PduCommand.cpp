// korva pdu: talk framed PDUs with a peer, for operators testing one. `serve` runs a TCP
// server machine and echoes every PDU it receives; `connect` runs a client machine (which
// backs off while the server is absent), sends each line of standard input as one PDU and
// prints each PDU that comes back.

#include "Command.h"
#include "Pdu.h"

#include <Korva/NetnsUtils.h>
#include <Korva/SimpleTcpPduPam.h>
#include <Korva/TcpClientServer.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <list>
#include <memory>
#include <string>

namespace KorvaTool {

std::string framedPdu(const std::string& body) {
  const size_t total = Korva::SimpleTcpPduPam::headerBytes + body.size();
  std::string pdu(Korva::SimpleTcpPduPam::headerBytes, '\0');
  pdu[2] = char(total >> 8);
  pdu[3] = char(total & 0xff);
  return pdu + body;
}

Mox::Ptr<Korva::Pkt> framedPduPkt(const std::string& body) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(framedPdu(body));
  return pkt;
}

std::string describePdu(const Korva::Pkt& pdu) {
  const std::string bytes = pdu.stringValue();
  std::string text = std::to_string(bytes.size()) + " bytes:";
  char hex[4];
  for (size_t i = 0; i < 8 && i < bytes.size(); ++i) {
    std::snprintf(hex, sizeof hex, " %02x", unsigned(Mox::U8(bytes[i])));
    text += hex;
  }
  std::string body = bytes.size() > Korva::SimpleTcpPduPam::headerBytes
                         ? bytes.substr(Korva::SimpleTcpPduPam::headerBytes)
                         : "";
  for (char& c : body) {
    if (c < 0x20 || c > 0x7e) c = '.';
  }
  if (body.size() > 40) body = body.substr(0, 40) + "...";
  return text + " | \"" + body + "\"";
}

namespace {

using Korva::IpGenAddr;
using Korva::Port;
using Mox::Ptr;

constexpr Mox::U16 maxBody = 9600 - Korva::SimpleTcpPduPam::headerBytes;

volatile sig_atomic_t stopRequested = 0;

// SIGINT and SIGTERM end the command after the loop's current turn.
void stopOnSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) { stopRequested = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool parseAddress(const std::string& text, IpGenAddr* addr) {
  try {
    addr->stringValueIs(text);
    return true;
  } catch (const Mox::RangeException&) {
    std::fprintf(stderr, "korva pdu: invalid address '%s'\n", text.c_str());
    return false;
  }
}

// The namespace of --netns must exist: a machine would otherwise retry in it for ever.
bool namespaceKnown(const std::string& netns) {
  if (netns.empty() || Korva::netNsExists(netns)) return true;
  std::fprintf(stderr, "korva pdu: no network namespace '%s'\n", netns.c_str());
  return false;
}

// One accepted connection of the server: echoes what it receives.
class EchoConnection : public Korva::TcpPduPam::Notifiee {
 public:
  explicit EchoConnection(const Korva::TcpConnSocket& conn)
      : peer_(conn.dstIpAddr().stringValue() + " port " + std::to_string(conn.dstPort().value())),
        pam_(Korva::simpleTcpPduPamFactory(conn.fd())) {
    notifierIs(pam_.get());
    pam_->enabledIs(true);
    std::printf("connection from %s\n", peer_.c_str());
  }
  ~EchoConnection() override { pam_->cleanup(); }
  bool closed() const { return !pam_->rxErrorReason().empty(); }
  void onReadable() override {
    if (!pam_->readable()) return;
    Ptr<Korva::Pkt> pdu = pam_->rxPkt();
    std::printf("from %s: %s\n", peer_.c_str(), describePdu(*pdu).c_str());
    if (pam_->writable()) {
      pam_->txPktIs(pdu);
    } else {
      std::printf("  not echoed: the peer is not reading\n");
    }
  }
  void onRxErrorReason() override {
    std::printf("%s: %s\n", peer_.c_str(), pam_->rxErrorReason().c_str());
  }

 private:
  std::string peer_;
  Ptr<Korva::SimpleTcpPduPam> pam_;
};

class Echo : public Korva::TcpServerStatus::Notifiee {
 public:
  explicit Echo(Korva::TcpServerStatus* status) { notifierIs(status); }
  void onConnSocket(Mox::U32) override {
    connections_.remove_if([](const auto& conn) { return conn->closed(); });
    while (notifier()->connSocketSize() > 0) {
      connections_.push_back(std::make_unique<EchoConnection>(notifier()->getConnSocket()));
    }
  }
  void onReason() override { std::printf("server: %s\n", notifier()->reason().c_str()); }

 private:
  std::list<std::unique_ptr<EchoConnection>> connections_;
};

struct ServeOptions {
  std::string netns;
  std::string addr = "0.0.0.0";
  Mox::U16 port = 0;
};

int serve(const ServeOptions& options) {
  IpGenAddr addr;
  if (!parseAddress(options.addr, &addr) || !namespaceKnown(options.netns)) return 2;
  auto wheel = Mox::make<Pylon::TimerWheel>("pdu");
  auto config = Korva::tcpServerConfigFactory("pdu", addr, Port(options.port));
  if (!options.netns.empty()) config->networkNamespaceIs(Korva::NamespaceName(options.netns));
  auto status = Korva::tcpServerStatusFactory("pdu");
  Echo echo(status.get());
  auto server = Mox::make<Korva::TcpServerSm>(wheel, config, status);
  if (!server->startListener() && status->reason() == "Listening port is 0") {
    std::fprintf(stderr, "korva pdu serve: %s\n", status->reason().c_str());
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("serving PDUs on %s port %u\n", options.addr.c_str(), unsigned(options.port));
  stopOnSignals();
  while (!stopRequested) Mox::runOnce(1.0);
  return 0;
}

// The client side: lines of standard input out as PDUs, PDUs back printed.
class LineClient : public Korva::TcpClientStatus::Notifiee, public Korva::TcpPduPam::Notifiee {
 public:
  explicit LineClient(Korva::TcpClientStatus* status) : status_(status) {
    Korva::TcpClientStatus::Notifiee::notifierIs(status);
  }
  // A failed attempt has armed the next one.
  void onRetryTimerNext() override {
    if (status_->connectionStatus() != Korva::TcpClientStatus::ConnectionStatus::failed) return;
    std::printf("attempt %u failed: %s; next in %u s\n", status_->connectionAttemptCount(),
                status_->reason().c_str(), status_->retryTimerInterval());
  }
  void onConnectionStatus() override {
    using Status = Korva::TcpClientStatus::ConnectionStatus;
    if (status_->connectionStatus() == Status::timedout) done_ = true;
    if (status_->connectionStatus() != Status::connected) return;
    const Korva::TcpConnSocket conn = status_->connSocket();
    std::printf("connected from %s port %u\n", conn.srcIpAddr().stringValue().c_str(),
                unsigned(conn.srcPort().value()));
    pam_ = Korva::simpleTcpPduPamFactory(conn.fd());
    Korva::TcpPduPam::Notifiee::notifierIs(pam_.get());
    pam_->enabledIs(true);
    flush();
  }
  void onReadable() override {
    if (!pam_->readable()) return;
    std::printf("echo %s\n", describePdu(*pam_->rxPkt()).c_str());
    ++echoed_;
  }
  void onWritable() override { flush(); }
  void onRxErrorReason() override {
    std::printf("connection: %s\n", pam_->rxErrorReason().c_str());
    done_ = true;
  }
  void lineIs(const std::string& line) {
    if (line.size() > maxBody) {
      std::printf("line of %zu bytes skipped: a PDU holds at most %u\n", line.size(), maxBody);
      return;
    }
    pending_.push_back(line);
    flush();
  }
  void inputEndedIs() { inputEnded_ = true; }
  bool succeeded() const { return inputEnded_ && pending_.empty() && echoed_ == sent_; }
  // Every line sent and answered, or nothing more can come.
  bool done() const { return done_ || succeeded(); }

 private:
  void flush() {
    while (pam_ && pam_->writable() && !pending_.empty()) {
      pam_->txPktIs(framedPduPkt(pending_.front()));
      pending_.pop_front();
      ++sent_;
    }
  }

  Korva::TcpClientStatus* status_;
  Ptr<Korva::SimpleTcpPduPam> pam_;
  std::deque<std::string> pending_;
  size_t sent_ = 0;
  size_t echoed_ = 0;
  bool inputEnded_ = false;
  bool done_ = false;
};

// Standard input, a line at a time, without blocking the loop.
class LineReader : public Mox::FileDescriptor::Notifiee {
 public:
  explicit LineReader(LineClient* client) : client_(client) {
    try {
      input_ = Mox::make<Mox::FileDescriptor>("stdin", dup(STDIN_FILENO));
      notifierIs(input_);
    } catch (const Mox::ErrnoException&) {
      // A regular file cannot be watched, and reading it never blocks.
      while (readSome(STDIN_FILENO)) {
      }
    }
  }
  void onReadableCount() override {
    if (!readSome(input_->descriptor())) input_->notifyOnReadableIs(false);
  }

 private:
  // Reads what is there and hands on each whole line; false once the input has ended.
  bool readSome(int fd) {
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0) return errno == EAGAIN || errno == EINTR;
    if (n == 0) {
      if (!partial_.empty()) client_->lineIs(partial_);
      client_->inputEndedIs();
      return false;
    }
    partial_.append(buffer, size_t(n));
    for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
      client_->lineIs(partial_.substr(0, end));
      partial_.erase(0, end + 1);
    }
    return true;
  }

  LineClient* client_;
  Ptr<Mox::FileDescriptor> input_;
  std::string partial_;
};

struct ConnectOptions {
  std::string netns;
  std::string host;
  Mox::U16 port = 0;
};

int connectTo(const ConnectOptions& options) {
  IpGenAddr addr;
  if (!parseAddress(options.host, &addr) || !namespaceKnown(options.netns)) return 2;
  auto wheel = Mox::make<Pylon::TimerWheel>("pdu");
  auto config = Korva::tcpClientConfigFactory("pdu", addr, Port(options.port));
  if (!options.netns.empty()) config->networkNamespaceIs(Korva::NamespaceName(options.netns));
  config->exponentialBackoffRetriesIs(4);
  auto status = Korva::tcpClientStatusFactory("pdu");
  LineClient client(status.get());
  LineReader reader(&client);
  auto sm = Mox::make<Korva::TcpClientSm>(wheel, 1, config, status);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  stopOnSignals();
  sm->startConnection();
  while (!client.done() && !stopRequested) Mox::runOnce(1.0);
  return client.succeeded() ? 0 : 1;
}

void setupPdu(CLI::App& app, int& exitStatus) {
  auto* pdu =
      app.add_subcommand("pdu", "Framed PDUs over TCP (20-byte header, length in bytes 2-3)");
  pdu->require_subcommand(1);

  static ServeOptions serveOptions;
  auto* serveCommand = pdu->add_subcommand("serve", "Accept connections and echo every PDU");
  serveCommand->add_option("--netns", serveOptions.netns, "Network namespace");
  serveCommand->add_option("--addr", serveOptions.addr, "Address to listen on (default 0.0.0.0)");
  serveCommand->add_option("--port", serveOptions.port, "Port to listen on")
      ->required()
      ->check(CLI::Range(1, 65535));
  serveCommand->callback([&exitStatus] { exitStatus = serve(serveOptions); });

  static ConnectOptions connectOptions;
  auto* connectCommand =
      pdu->add_subcommand("connect", "Send each line of standard input as one PDU");
  connectCommand->add_option("--netns", connectOptions.netns, "Network namespace");
  connectCommand->add_option("host", connectOptions.host, "Server address")->required();
  connectCommand->add_option("port", connectOptions.port, "Server port")
      ->required()
      ->check(CLI::Range(1, 65535));
  connectCommand->callback([&exitStatus] { exitStatus = connectTo(connectOptions); });
}

const bool registered = registerCommand(setupPdu);

}  // namespace
}  // namespace KorvaTool
