// DTLS 1.2 over loopback, through the Pams against a bare loop that makes the same OpenSSL
// calls on plain non-blocking UDP sockets in this process: the same contexts (cipher list,
// certificates, verification, cookies of HMAC-SHA1 over the peer's address and port), the
// same DTLSv1_listen, a connected socket per peer on the server's port, SSL_accept and
// SSL_connect as readiness allows, SSL_write and SSL_read. The bare loop waits for
// readiness with poll(), the Pams with the event loop.
//
// BM_HandshakeRatio: one handshake per step, each side's thread CPU time; `ratio` is
// bare / Pam time, the goal >= 0.8. BM_EchoRatio: 1 KiB records echoed on an established
// session, the same way. BM_Scale200: 200 client Pams handshake at once with one server
// socket; handshakes per second (wall time) and resident memory per session (client and
// server side together).

#include "../apps/korva/DemoCertificates.h"

#include <Korva/SocketUtils.h>
#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <benchmark/benchmark.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Korva::UdpPamDtls;
using Mox::Ptr;

const Korva::IpAddr kLoopback(127, 0, 0, 1);
constexpr size_t kRecordBytes = 1024;

const KorvaTool::DemoCertificates& certificates() {
  static const KorvaTool::DemoCertificates made;
  MOX_ASSERT(made.made());
  return made;
}

double cpuNanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

Ptr<Korva::Pkt> packetOf(const std::string& bytes) {
  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

// --- the Pams ---

// Drains what a Pam reads; a server echoes it to its sender.
struct Agent : UdpPamDtls::Notifiee {
  Agent(UdpPamDtls* pam, bool echoes) : echoes(echoes) { notifierIs(pam); }
  void onReadableDataCount() override {
    UdpPamDtls& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      ++received;
      if (!echoes) continue;
      pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(pkt);
    }
  }
  bool echoes;
  size_t received = 0;
};

Ptr<Korva::UdpPamDtlsServer> pamServer() {
  Ptr<Korva::UdpPamDtlsServer> server = Korva::udpPamDtlsServerFactory(
      "bench-server", Korva::DtlsConstants::dtlsV12(), "DEFAULT", certificates().path("server.pem"),
      certificates().path("ca.pem"), "");
  server->rxIpAddrIs(kLoopback);
  server->modeIs(Korva::UdpPam::Mode::server);
  return server;
}

Ptr<Korva::UdpPamDtlsClient> pamClient(Mox::U16 port) {
  Ptr<Korva::UdpPamDtlsClient> client = Korva::udpPamDtlsClientFactory(
      "bench-client", Korva::DtlsConstants::dtlsV12(), "DEFAULT", certificates().path("client.pem"),
      certificates().path("ca.pem"));
  client->txDstIpAddrIs(kLoopback);
  client->txPortIs(port);
  client->modeIs(Korva::UdpPam::Mode::client);
  return client;
}

bool connected(const UdpPamDtls& client) {
  const auto& sessions = client.udpPamDtlsSessionColl();
  return !sessions.empty() &&
         sessions.begin()->second->state() == Korva::UdpPamDtlsSession::State::connected;
}

// The client Pam's handshake with the server Pam, then both sessions closed again (the
// close_notify deletes the server's session).
void pamHandshake(Korva::UdpPamDtlsClient& client, Korva::UdpPamDtlsServer& server) {
  client.modeIs(Korva::UdpPam::Mode::client);
  client.txPktIs(packetOf("hello"));
  MOX_ASSERT(Mox::runUntil([&] { return connected(client); }, 5.0));
  client.destroy();
  MOX_ASSERT(Mox::runUntil([&] { return server.udpPamDtlsSessionColl().empty(); }, 5.0));
}

// --- the bare loop ---

unsigned char cookieSecret[16];

bool cookieOf(SSL* ssl, unsigned char* cookie, size_t* length) {
  BIO_ADDR* peer = BIO_ADDR_new();
  unsigned char material[6];
  size_t addressLength = 4;
  const bool ok = BIO_dgram_get_peer(SSL_get_rbio(ssl), peer) > 0 &&
                  BIO_ADDR_rawaddress(peer, material, &addressLength);
  const unsigned short port = BIO_ADDR_rawport(peer);
  BIO_ADDR_free(peer);
  std::memcpy(material + 4, &port, 2);
  return ok &&
         EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA1", nullptr, cookieSecret, sizeof cookieSecret,
                   material, sizeof material, cookie, DTLS1_COOKIE_LENGTH, length);
}

int bareGenerateCookie(SSL* ssl, unsigned char* cookie, unsigned int* length) {
  size_t bytes = 0;
  if (!cookieOf(ssl, cookie, &bytes)) return 0;
  *length = unsigned(bytes);
  return 1;
}

int bareVerifyCookie(SSL* ssl, const unsigned char* cookie, unsigned int length) {
  unsigned char expected[DTLS1_COOKIE_LENGTH];
  size_t bytes = 0;
  return cookieOf(ssl, expected, &bytes) && bytes == length &&
         CRYPTO_memcmp(expected, cookie, bytes) == 0;
}

SSL_CTX* bareContext(bool server) {
  SSL_CTX* ctx = SSL_CTX_new(server ? DTLS_server_method() : DTLS_client_method());
  SSL_CTX_set_min_proto_version(ctx, DTLS1_2_VERSION);
  SSL_CTX_set_max_proto_version(ctx, DTLS1_2_VERSION);
  SSL_CTX_set_read_ahead(ctx, 1);
  if (server) SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_cipher_list(ctx, "DEFAULT");
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION);
  if (server) SSL_CTX_set_dh_auto(ctx, 1);
  const std::string pem = certificates().path(server ? "server.pem" : "client.pem");
  MOX_ASSERT(SSL_CTX_use_certificate_file(ctx, pem.c_str(), SSL_FILETYPE_PEM) == 1 &&
             SSL_CTX_use_PrivateKey_file(ctx, pem.c_str(), SSL_FILETYPE_PEM) == 1 &&
             SSL_CTX_check_private_key(ctx) == 1 &&
             SSL_CTX_load_verify_locations(ctx, certificates().path("ca.pem").c_str(), nullptr));
  SSL_CTX_set_verify(ctx, server ? 7 : 1, nullptr);
  if (server) {
    SSL_CTX_set_cookie_generate_cb(ctx, bareGenerateCookie);
    SSL_CTX_set_cookie_verify_cb(ctx, bareVerifyCookie);
  }
  return ctx;
}

int udpSocket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  Korva::setSocketOptionInteger(fd, SOL_SOCKET, SO_REUSEADDR, 1, false);
  return fd;
}

bool readable(int fd) {
  pollfd ready{fd, POLLIN, 0};
  return poll(&ready, 1, 5000) == 1;
}

SSL* sslOn(SSL_CTX* ctx, int fd) {
  SSL* ssl = SSL_new(ctx);
  BIO* bio = BIO_new_dgram(fd, BIO_NOCLOSE);
  SSL_set_bio(ssl, bio, bio);
  return ssl;
}

void connectBio(SSL* ssl, Mox::U16 port) {
  BIO_ADDR* peer = BIO_ADDR_new();
  const in_addr ip{kLoopback.valueNbo()};
  BIO_ADDR_rawmake(peer, AF_INET, &ip, sizeof ip, htons(port));
  BIO_ctrl_set_connected(SSL_get_rbio(ssl), peer);
  BIO_ADDR_free(peer);
}

Mox::U16 localPort(int fd) {
  Korva::SockAddr local{};
  socklen_t length = sizeof local;
  getsockname(fd, &local.base, &length);
  return Korva::sockAddrPort(&local.base);
}

// A server socket with its contexts, and one established session when asked for.
struct BarePair {
  BarePair() {
    RAND_bytes(cookieSecret, sizeof cookieSecret);
    serverCtx = bareContext(true);
    clientCtx = bareContext(false);
    listenFd = udpSocket();
    MOX_ASSERT(Korva::socketBind(listenFd, Korva::IpGenAddr(kLoopback), 0) == 0);
    port = localPort(listenFd);
  }
  ~BarePair() {
    closeSession();
    SSL_CTX_free(serverCtx);
    SSL_CTX_free(clientCtx);
    close(listenFd);
  }
  // The handshake as a non-blocking program does it: each side steps when its socket is
  // readable.
  void handshake() {
    clientFd = udpSocket();
    Korva::socketConnect(clientFd, Korva::IpGenAddr(kLoopback), port);
    client = sslOn(clientCtx, clientFd);
    connectBio(client, port);
    SSL_set_connect_state(client);
    SSL_connect(client);
    SSL* listener = sslOn(serverCtx, listenFd);
    SSL_set_options(listener, SSL_OP_COOKIE_EXCHANGE);
    BIO_ADDR* peer = BIO_ADDR_new();
    while (true) {
      MOX_ASSERT(readable(listenFd));
      if (DTLSv1_listen(listener, peer) > 0) break;
      MOX_ASSERT(readable(clientFd));
      SSL_connect(client);
    }
    const Mox::U16 peerPort = ntohs(BIO_ADDR_rawport(peer));
    BIO_ADDR_free(peer);
    serverFd = udpSocket();
    Korva::socketBind(serverFd, Korva::IpGenAddr(kLoopback), port);
    Korva::socketConnect(serverFd, Korva::IpGenAddr(kLoopback), peerPort);
    server = listener;
    BIO* bio = BIO_new_dgram(serverFd, BIO_NOCLOSE);
    SSL_set_bio(server, bio, bio);
    connectBio(server, peerPort);
    bool serverDone = false, clientDone = false;
    while (!serverDone || !clientDone) {
      if (!serverDone) serverDone = SSL_accept(server) == 1;
      if (!clientDone && readable(clientFd)) clientDone = SSL_connect(client) == 1;
      if (!serverDone) MOX_ASSERT(readable(serverFd));
    }
  }
  void closeSession() {
    if (!client) return;
    SSL_shutdown(client);
    SSL_free(client);
    SSL_free(server);
    close(clientFd);
    close(serverFd);
    client = server = nullptr;
  }
  // One record to the server, echoed back.
  void echo(const char* record) {
    char buffer[2048];
    MOX_ASSERT(SSL_write(client, record, int(kRecordBytes)) == int(kRecordBytes));
    MOX_ASSERT(readable(serverFd));
    const int n = SSL_read(server, buffer, sizeof buffer);
    MOX_ASSERT(SSL_write(server, buffer, n) == n);
    MOX_ASSERT(readable(clientFd));
    MOX_ASSERT(SSL_read(client, buffer, sizeof buffer) == int(kRecordBytes));
  }

  SSL_CTX* serverCtx;
  SSL_CTX* clientCtx;
  int listenFd;
  Mox::U16 port;
  int clientFd = -1, serverFd = -1;
  SSL* client = nullptr;
  SSL* server = nullptr;
};

// --- the benchmarks ---

void BM_HandshakeRatio(benchmark::State& state) {
  Ptr<Korva::UdpPamDtlsServer> server = pamServer();
  Agent serverAgent(server.get(), false);
  Ptr<Korva::UdpPamDtlsClient> client = pamClient(server->rxPortLocal());
  BarePair bare;
  double bareTime = 0, pamTime = 0;
  for (auto _ : state) {
    double start = cpuNanoseconds();
    bare.handshake();
    bare.closeSession();
    bareTime += cpuNanoseconds() - start;
    start = cpuNanoseconds();
    pamHandshake(*client, *server);
    pamTime += cpuNanoseconds() - start;
  }
  const double count = double(state.iterations());
  state.counters["bare_per_s"] = count / (bareTime / 1e9);
  state.counters["pam_per_s"] = count / (pamTime / 1e9);
  state.counters["ratio"] = bareTime / pamTime;
}

void BM_EchoRatio(benchmark::State& state) {
  constexpr int kBatch = 200;
  const std::string record(kRecordBytes, 'r');
  Ptr<Korva::UdpPamDtlsServer> server = pamServer();
  Agent serverAgent(server.get(), true);
  Ptr<Korva::UdpPamDtlsClient> client = pamClient(server->rxPortLocal());
  Agent clientAgent(client.get(), false);
  client->txPktIs(packetOf(record));
  MOX_ASSERT(Mox::runUntil([&] { return clientAgent.received == 1; }, 5.0));
  BarePair bare;
  bare.handshake();
  const Ptr<Korva::Pkt> pkt = packetOf(record);
  double bareTime = 0, pamTime = 0;
  for (auto _ : state) {
    double start = cpuNanoseconds();
    for (int i = 0; i < kBatch; ++i) bare.echo(record.data());
    bareTime += cpuNanoseconds() - start;
    start = cpuNanoseconds();
    for (int i = 0; i < kBatch; ++i) {
      const size_t before = clientAgent.received;
      client->txPktIs(pkt);
      // Turns of the loop as a bare program polls: each waits for the next readiness.
      for (int turns = 0; clientAgent.received == before && turns < 16; ++turns) Mox::runOnce(5.0);
      MOX_ASSERT(clientAgent.received > before);
    }
    pamTime += cpuNanoseconds() - start;
  }
  const double records = double(state.iterations()) * kBatch;
  state.counters["bare_per_s"] = records / (bareTime / 1e9);
  state.counters["pam_per_s"] = records / (pamTime / 1e9);
  state.counters["ratio"] = bareTime / pamTime;
}

long residentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

void BM_Scale200(benchmark::State& state) {
  constexpr int kClients = 200;
  Ptr<Korva::UdpPamDtlsServer> server = pamServer();
  // Room for every peer's hello at once, as an agent expecting many peers would make.
  server->incSockBufSize(1 << 22);
  Agent serverAgent(server.get(), false);
  double seconds = 0, bytesPerSession = 0;
  for (auto _ : state) {
    std::vector<Ptr<Korva::UdpPamDtlsClient>> clients;
    for (int i = 0; i < kClients; ++i) clients.push_back(pamClient(server->rxPortLocal()));
    const long before = residentBytes();
    const auto start = std::chrono::steady_clock::now();
    for (const auto& client : clients) client->txPktIs(packetOf("hello"));
    MOX_ASSERT(Mox::runUntil(
        [&] {
          return std::all_of(clients.begin(), clients.end(),
                             [](const auto& client) { return connected(*client); });
        },
        30.0));
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    bytesPerSession += double(residentBytes() - before) / kClients;
    for (const auto& client : clients) client->destroy();
    MOX_ASSERT(Mox::runUntil([&] { return server->udpPamDtlsSessionColl().empty(); }, 10.0));
  }
  const double rounds = double(state.iterations());
  state.counters["handshakes_per_s"] = rounds * kClients / seconds;
  state.counters["bytes_per_session"] = bytesPerSession / rounds;
}

BENCHMARK(BM_HandshakeRatio)->Iterations(200);
BENCHMARK(BM_EchoRatio)->Iterations(20);
BENCHMARK(BM_Scale200)->Iterations(3)->UseRealTime();

}  // namespace
