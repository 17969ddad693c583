#include <Korva/NetnsUtils.h>
#include <Korva/SocketUtils.h>
#include <Korva/UdpPamDtls.h>
#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace Korva {

namespace {

Mox::TraceHandle trace("UdpPamDtls");

// Handshake calls a session may fail and still wait; one more resets it.
constexpr U16 serverHandshakeLimit = 6;
constexpr U16 clientHandshakeLimit = 20;

// The Pam of an SSL object, for the cookie callbacks.
int ownerIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

// The first queued OpenSSL error as text. The queue is left empty, as SSL_get_error needs
// it before the next call: the record paths clear it only here, on failure.
std::string sslErrorText() {
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof text);
  ERR_clear_error();
  return text;
}

std::string peerText(const SessionPeer& peer) {
  return peer.peerIp().stringValue() + ":" + std::to_string(peer.peerPort().value());
}

// The peer a datagram BIO talks to; empty unless it is IPv4.
SessionPeer bioAddrPeer(const BIO_ADDR* address) {
  if (BIO_ADDR_family(address) != AF_INET) return SessionPeer();
  in_addr ip{};
  size_t length = sizeof ip;
  BIO_ADDR_rawaddress(address, &ip, &length);
  return SessionPeer(IpAddr(ip.s_addr), Port(ntohs(BIO_ADDR_rawport(address))));
}

// HMAC-SHA1 under the Pam's secret over the peer's IPv4 address and port (network order).
bool cookieFor(SSL* ssl, const std::array<U8, 16>& secret, unsigned char* cookie, size_t* length) {
  std::unique_ptr<BIO_ADDR, decltype(&BIO_ADDR_free)> peer(BIO_ADDR_new(), BIO_ADDR_free);
  if (!peer || BIO_dgram_get_peer(SSL_get_rbio(ssl), peer.get()) <= 0 ||
      BIO_ADDR_family(peer.get()) != AF_INET) {
    return false;
  }
  MOX_TRACE(trace, 9, "generate cookie peer family is INET");
  constexpr size_t materialBytes = 6;
  std::unique_ptr<unsigned char, void (*)(unsigned char*)> material(
      static_cast<unsigned char*>(OPENSSL_malloc(materialBytes)),
      [](unsigned char* bytes) { OPENSSL_free(bytes); });
  if (!material) {
    MOX_TRACE(trace, 0, "generate_cookie: error out of memory");
    return false;
  }
  size_t addressLength = 4;
  BIO_ADDR_rawaddress(peer.get(), material.get(), &addressLength);
  const unsigned short port = BIO_ADDR_rawport(peer.get());
  std::memcpy(material.get() + 4, &port, 2);
  return EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA1", nullptr, secret.data(), secret.size(),
                   material.get(), materialBytes, cookie, DTLS1_COOKIE_LENGTH, length) != nullptr;
}

// One context set-up step: a failure traces OpenSSL's reason (and `traceText` when
// given) and throws `step`.
void require(bool ok, const char* step, const std::string& traceText = std::string()) {
  if (ok) return;
  const std::string reason = sslErrorText();
  MOX_TRACE(trace, 0, (traceText.empty() ? std::string(step) : traceText) << " (" << reason << ")");
  throw Mox::Exception(step);
}

int verifyCookie(SSL* ssl, const unsigned char* cookie, unsigned int length) {
  auto* pam = static_cast<const UdpPamDtls*>(SSL_get_ex_data(ssl, ownerIndex()));
  unsigned char expected[DTLS1_COOKIE_LENGTH];
  size_t bytes = 0;
  return pam->cookieInitialized() && cookieFor(ssl, pam->cookieSecret(), expected, &bytes) &&
         bytes == length && CRYPTO_memcmp(expected, cookie, bytes) == 0;
}

}  // namespace

// --- UdpPamDtls ---

int UdpPamDtls::generateCookie(SSL* ssl, unsigned char* cookie, unsigned int* length) {
  auto* pam = static_cast<UdpPamDtls*>(SSL_get_ex_data(ssl, ownerIndex()));
  if (!pam->cookieInitialized()) {
    if (RAND_bytes(pam->cookieSecret_.data(), int(pam->cookieSecret_.size())) != 1) {
      MOX_TRACE(trace, 0, "generate_cookie: error setting random cookie secret");
      return 0;
    }
    pam->cookieInitializedIs(true);
  }
  size_t bytes = 0;
  if (!cookieFor(ssl, pam->cookieSecret_, cookie, &bytes)) return 0;
  *length = unsigned(bytes);
  return 1;
}

UdpPamDtls::UdpPamDtls(const Mox::Name& name, U8 dtlsVersion, const Mox::String8& cipherSuite,
                       const Mox::String8& certKeyFile, const Mox::String8& caFile, bool isServer)
    : UdpPamDtlsBase(name, dtlsVersion, cipherSuite, certKeyFile, caFile) {
  isServerIs(isServer);
}

UdpPamDtls::~UdpPamDtls() {
  closeSessions();
  SSL_CTX_free(ctx_);
}

void UdpPamDtls::handleInitialized() {
  MOX_ASSERT_TEXT(
      dtlsVersion() == DtlsConstants::dtlsV1() || dtlsVersion() == DtlsConstants::dtlsV12(),
      "dtlsVersion() == DtlsConstants::dtlsV1()");
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  ERR_clear_error();
  const bool server = isServer();
  const int version = dtlsVersion() == DtlsConstants::dtlsV1() ? DTLS1_VERSION : DTLS1_2_VERSION;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(
      SSL_CTX_new(server ? DTLS_server_method() : DTLS_client_method()), SSL_CTX_free);
  require(ctx && SSL_CTX_set_min_proto_version(ctx.get(), version) &&
              SSL_CTX_set_max_proto_version(ctx.get(), version),
          "SSL_CTX_new error");
  // DTLS 1.0's ciphers are below OpenSSL 3's default security level; only it goes lower.
  if (version == DTLS1_VERSION) SSL_CTX_set_security_level(ctx.get(), 0);
  SSL_CTX_set_read_ahead(ctx.get(), 1);
  if (server) SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
  require(SSL_CTX_set_cipher_list(ctx.get(), cipherSuite().c_str()) == 1,
          "SSL_CTX_set_cipher_list error");
  SSL_CTX_set_options(ctx.get(), SSL_OP_NO_COMPRESSION);
  useDhParams(ctx.get());
  const std::string role = std::string(server ? "UdpPamDtlsServer" : "UdpPamDtlsClient") +
                           "::handleInitialized " + (server ? "Server: " : "Client: ");
  require(SSL_CTX_use_certificate_file(ctx.get(), certKeyFile().c_str(), SSL_FILETYPE_PEM) == 1,
          "SSL_CTX_use_certificate_file error", role + "No certificate found!");
  require(SSL_CTX_use_PrivateKey_file(ctx.get(), certKeyFile().c_str(), SSL_FILETYPE_PEM) == 1,
          "SSL_CTX_use_PrivateKey_file error", role + "No private key found!");
  require(SSL_CTX_check_private_key(ctx.get()) == 1, "SSL_CTX_check_private_key error",
          role + "ERROR: Invalid private key!");
  require(SSL_CTX_load_verify_locations(ctx.get(), caFile().c_str(), nullptr) == 1,
          "SSL_CTX_load_verify_locations error");
  SSL_CTX_set_verify(
      ctx.get(),
      server ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT | SSL_VERIFY_CLIENT_ONCE
             : SSL_VERIFY_PEER,
      nullptr);
  if (server) {
    SSL_CTX_set_cookie_generate_cb(ctx.get(), generateCookie);
    SSL_CTX_set_cookie_verify_cb(ctx.get(), verifyCookie);
  }
  ctx_ = ctx.release();
}

Mox::Ptr<UdpPamDtlsSession> UdpPamDtls::udpPamDtlsSession(const SessionPeer& peer) const {
  const auto found = sessions_.find(peer);
  return found == sessions_.end() ? nullptr : found->second;
}

SessionPeer UdpPamDtls::destinationPeer() const {
  return SessionPeer(txDstIpAddr(), Port(txPort()));
}

int UdpPamDtls::connectedSocket(const SessionPeer& peer, bool bindLocal) const {
  const int fd = socketAt(AF_INET, SOCK_DGRAM, 0, netNs().value());
  if (fd < 0) {
    MOX_TRACE(trace, 0, name() << ": socket for " << peerText(peer) << " failed with " << errno);
    return -1;
  }
  // A server's session shares the listening socket's address and port; being connected,
  // it alone receives what its peer sends.
  if ((bindLocal && (setSocketOptionInteger(fd, SOL_SOCKET, SO_REUSEADDR, 1, false) != 0 ||
                     socketBind(fd, IpGenAddr(rxIpAddr()), rxPortLocal()) != 0)) ||
      socketConnect(fd, IpGenAddr(peer.peerIp()), peer.peerPort().value()) != 0) {
    MOX_TRACE(trace, 0,
              name() << ": socket for " << peerText(peer) << " failed with " << errno << " ("
                     << strerror(errno) << ")");
    close(fd);
    return -1;
  }
  return fd;
}

Mox::Ptr<UdpPamDtlsSession> UdpPamDtls::newSession(const SessionPeer& peer, SSL* ssl, int fd) {
  deleteSession(peer);
  SSL_set_ex_data(ssl, ownerIndex(), this);
  Mox::Ptr<UdpPamDtlsSession> session(
      new UdpPamDtlsSession(peer, peerText(peer), ssl, this, isServer()));
  sessions_[peer] = session;
  activeSessionIs(peer, true);
  session->start(fd);
  return session;
}

void UdpPamDtls::deleteSession(const SessionPeer& peer) {
  const auto found = sessions_.find(peer);
  if (found == sessions_.end()) return;
  const Mox::Ptr<UdpPamDtlsSession> session = found->second;
  sessions_.erase(found);
  std::erase(readable_, session);
  activeSessionDel(peer);
  session->destroy();
  // Whoever still holds the session holds a closed one that no longer reports here.
  session->owner_ = nullptr;
}

void UdpPamDtls::closeSessions() {
  while (!sessions_.empty()) deleteSession(sessions_.begin()->first);
}

void UdpPamDtls::peerEnded(const SessionPeer& peer, bool failed) {
  if (failed) {
    if (errorPeer() == peer) errorPeerDel();
    errorPeerIs(peer);
  } else {
    if (terminatedPeer() == peer) terminatedPeerDel();
    terminatedPeerIs(peer);
  }
}

void UdpPamDtls::terminateSessionPeer() {
  if (terminatedPeer() == SessionPeer()) return;
  MOX_TRACE(
      trace, 1,
      "UdpPamDtls::terminateSessionPeer Deleting terminatedPeer:" << peerText(terminatedPeer()));
  deleteSession(terminatedPeer());
}

void UdpPamDtls::handleErrorSessionPeer() {
  if (errorPeer() == SessionPeer()) return;
  MOX_TRACE(trace, 1,
            "UdpPamDtls::handleErrorSessionPeer Deleting errorPeer:" << peerText(errorPeer()));
  deleteSession(errorPeer());
}

void UdpPamDtls::sessionReadable(UdpPamDtlsSession* session) {
  if (std::find(readable_.begin(), readable_.end(), session) == readable_.end()) {
    readable_.emplace_back(session);
  }
  readableDataCountInc(1);
}

void UdpPamDtls::doGetRxPkt() {
  while (!readable_.empty()) {
    const Mox::Ptr<UdpPamDtlsSession> session = readable_.front();
    if (Mox::Ptr<Pkt> pkt = session->rxPkt()) {
      // Without records held back by OpenSSL the session is drained; what the socket still
      // has makes it readable again.
      if (!session->ssl() || !SSL_has_pending(session->ssl())) std::erase(readable_, session);
      rxSrcIpAddrIs(session->sessionIndex().peerIp());
      rxSrcPortIs(session->sessionIndex().peerPort().value());
      rxDstIpAddrIs(session->localIp());
      rxPktsInc(1);
      rxPktHolderIs(pkt);
      return;
    }
    // Drained (or deleted while reading, which already took it off the list).
    if (!readable_.empty() && readable_.front() == session) readable_.pop_front();
  }
}

void UdpPamDtls::doDelSocket() {
  closeSessions();
  UdpPam::doDelSocket();
}

void UdpPamDtls::destroy() {
  MOX_TRACE(trace, 1, "UdpPamDtls::destroy Setting mode to disabled");
  closeSessions();
  modeIs(Mode::disabled);
}

// --- UdpPamDtlsServer ---

UdpPamDtlsServer::UdpPamDtlsServer(const Mox::Name& name, U8 dtlsVersion,
                                   const Mox::String8& cipherSuite, const Mox::String8& certKeyFile,
                                   const Mox::String8& caFile, const Mox::String8& dhparamsFile)
    : UdpPamDtls(name, dtlsVersion, cipherSuite, certKeyFile, caFile, true),
      dhparamsFile_(dhparamsFile) {}

UdpPamDtlsServer::~UdpPamDtlsServer() {
  SSL_free(listener_);
}

Mox::Ptr<UdpPamDtlsServer> udpPamDtlsServerFactory(const Mox::Name& name, U8 dtlsVersion,
                                                   const Mox::String8& cipherSuite,
                                                   const Mox::String8& certKeyFile,
                                                   const Mox::String8& caFile,
                                                   const Mox::String8& dhparamsFile) {
  Mox::Ptr<UdpPamDtlsServer> pam(
      new UdpPamDtlsServer(name, dtlsVersion, cipherSuite, certKeyFile, caFile, dhparamsFile));
  pam->handleInitialized();
  return pam;
}

// Without a file OpenSSL picks a built-in group of matching strength.
void UdpPamDtlsServer::useDhParams(SSL_CTX* ctx) {
  if (dhparamsFile_.empty()) {
    SSL_CTX_set_dh_auto(ctx, 1);
    return;
  }
  MOX_TRACE(trace, 1, "UdpPamDtls::tmp_dh_callback Using DH file:" << dhparamsFile_);
  BIO* file = BIO_new_file(dhparamsFile_.c_str(), "r");
  EVP_PKEY* params = file ? PEM_read_bio_Parameters_ex(file, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(file);
  const bool ok = params && EVP_PKEY_is_a(params, "DH") && SSL_CTX_set0_tmp_dh_pkey(ctx, params);
  if (!ok) EVP_PKEY_free(params);
  require(ok, "PEM_read_DHparams error");
}

void UdpPamDtlsServer::doNewSocket() {
  UdpPam::doNewSocket();
  if (!newListener()) throw Mox::Exception("SSL_new error");
}

void UdpPamDtlsServer::doDelSocket() {
  SSL_free(listener_);
  listener_ = nullptr;
  UdpPamDtls::doDelSocket();
}

bool UdpPamDtlsServer::newListener() {
  SSL_free(listener_);
  listener_ = SSL_new(sslCtx());
  BIO* bio = listener_ ? BIO_new_dgram(fileDesc()->descriptor(), BIO_NOCLOSE) : nullptr;
  if (!bio) {
    MOX_TRACE(trace, 0, name() << ": no SSL object to listen with (" << sslErrorText() << ")");
    SSL_free(listener_);
    listener_ = nullptr;
    return false;
  }
  SSL_set_bio(listener_, bio, bio);
  SSL_set_ex_data(listener_, ownerIndex(), this);
  SSL_set_options(listener_, SSL_OP_COOKIE_EXCHANGE);
  return true;
}

void UdpPamDtlsServer::readableCountInc(U32 delta) {
  UdpPamDtls::readableCountInc(delta);
  handleNewConnections();
}

void UdpPamDtlsServer::handleNewConnections() {
  std::unique_ptr<BIO_ADDR, decltype(&BIO_ADDR_free)> client(BIO_ADDR_new(), BIO_ADDR_free);
  while (listener_ && client) {
    MOX_TRACE(trace, 9, "Server: Calling DTLSv1_listen()");
    ERR_clear_error();
    const int result = DTLSv1_listen(listener_, client.get());
    if (result <= 0) {
      // 0: nothing more to answer for now (the last hello may have had no cookie).
      const int error = SSL_get_error(listener_, result);
      if (result == 0 || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        MOX_TRACE(
            trace, 9,
            "Server: DTLSv1_listen: " << (error == SSL_ERROR_WANT_WRITE ? "SSL_ERROR_WANT_WRITE"
                                                                        : "SSL_ERROR_WANT_READ"));
        return;
      }
      // A fatal error spoils the listening object; the next readability starts afresh.
      MOX_TRACE(trace, 1, "Server: DTLSv1_listen error: " << sslErrorText());
      newListener();
      return;
    }
    const SessionPeer peer = bioAddrPeer(client.get());
    MOX_TRACE(trace, 1, "Server: DTLSv1_listen: Connection request from" << peerText(peer));
    const bool room = udpPamDtlsSessionColl().size() < maxSessions || udpPamDtlsSession(peer);
    const int fd = room ? connectedSocket(peer, true) : -1;
    if (fd < 0) {
      MOX_TRACE(trace, 0,
                name() << ": refusing " << peerText(peer) << (room ? "" : ": session table full"));
      newListener();
      continue;
    }
    SSL* ssl = listener_;
    listener_ = nullptr;
    newListener();
    MOX_TRACE(trace, 1, "Creating udpPamDtlsSession object with sessionIndex:" << peerText(peer));
    newSession(peer, ssl, fd);
  }
}

void UdpPamDtlsServer::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  const Mox::Ptr<UdpPamDtlsSession> session = udpPamDtlsSession(destinationPeer());
  if (!session) {
    MOX_TRACE(trace, 3,
              "UdpPamDtlsServer::txPktIs Object for sessionIndex:" << peerText(destinationPeer())
                                                                   << " not found");
    txDropsInc(1);
    return;
  }
  session->txPktIs(pkt);
}

// --- UdpPamDtlsClient ---

UdpPamDtlsClient::UdpPamDtlsClient(const Mox::Name& name, U8 dtlsVersion,
                                   const Mox::String8& cipherSuite, const Mox::String8& certKeyFile,
                                   const Mox::String8& caFile)
    : UdpPamDtls(name, dtlsVersion, cipherSuite, certKeyFile, caFile, false) {}

Mox::Ptr<UdpPamDtlsClient> udpPamDtlsClientFactory(const Mox::Name& name, U8 dtlsVersion,
                                                   const Mox::String8& cipherSuite,
                                                   const Mox::String8& certKeyFile,
                                                   const Mox::String8& caFile) {
  Mox::Ptr<UdpPamDtlsClient> pam(
      new UdpPamDtlsClient(name, dtlsVersion, cipherSuite, certKeyFile, caFile));
  pam->handleInitialized();
  return pam;
}

void UdpPamDtlsClient::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT_TEXT(!ipv6En(), "!ipv6En() && \"ipv6En() = true, not supported yet\"");
  MOX_ASSERT_TEXT(mode() != Mode::disabled, "mode() != disabled()");
  const SessionPeer peer = destinationPeer();
  Mox::Ptr<UdpPamDtlsSession> session = udpPamDtlsSession(peer);
  if (session && session->disconnected()) {
    MOX_TRACE(trace, 1,
              "UdpPamDtlsClient::txPktIs Deleting udpPamDtlsSession object with sessionIndex:"
                  << peerText(peer) << " since its not in connected state.");
    deleteSession(peer);
    session = nullptr;
  }
  if (!session) {
    MOX_TRACE(trace, 1,
              "UdpPamDtlsClient::txPktIs Creating udpPamDtlsSession object with sessionIndex:"
                  << peerText(peer));
    const int fd = udpPamDtlsSessionColl().size() < maxSessions ? connectedSocket(peer, false) : -1;
    SSL* ssl = fd < 0 ? nullptr : SSL_new(sslCtx());
    if (!ssl) {
      if (fd >= 0) close(fd);
      MOX_TRACE(trace, 0, name() << ": no session for " << peerText(peer));
      txDropsInc(1);
      return;
    }
    SSL_set_connect_state(ssl);
    session = newSession(peer, ssl, fd);
  }
  session->txPktIs(pkt);
}

// --- UdpPamDtlsSession ---

UdpPamDtlsSession::UdpPamDtlsSession(const SessionPeer& sessionIndex, const Mox::Name& peerText,
                                     SSL* ssl, UdpPamDtls* owner, bool isServer)
    : UdpPamDtlsSessionBase(peerText, sessionIndex, isServer), ssl_(ssl), owner_(owner) {}

UdpPamDtlsSession::~UdpPamDtlsSession() {
  releaseConnection();
}

void UdpPamDtlsSession::start(int fd) {
  const auto socket = Mox::make<Mox::FileDescriptor>(name(), fd);
  BIO* bio = BIO_new_dgram(fd, BIO_NOCLOSE);
  if (!bio) {
    reset();
    return;
  }
  SSL_set_bio(ssl_, bio, bio);
  retransmission_ = Mox::make<Mox::Clock>(name());
  retransmissionReactor_ = std::make_unique<MoxRetransmission>(this, retransmission_);
  modeIs(Mode::enabled);
  // Watching polls the session once: a client's first handshake step sends its hello, a
  // server's answers the hello the cookie exchange kept.
  fd_.fileDescIs(socket, this);
}

void UdpPamDtlsSession::armRetransmission() {
  timeval due{};
  retransmission_->minimumTimeIs(DTLSv1_get_timeout(ssl_, &due) == 1
                                     ? Mox::now() + double(due.tv_sec) + double(due.tv_usec) / 1e6
                                     : Mox::kNever);
}

void UdpPamDtlsSession::MoxRetransmission::onTime() {
  notifier()->minimumTimeIs(Mox::kNever);
  session_->handleRetransmission();
}

// A flight that got no answer in time is sent again; OpenSSL gives up after a dozen.
void UdpPamDtlsSession::handleRetransmission() {
  if (!ssl_ || state() == State::connected) return;
  if (DTLSv1_handle_timeout(ssl_) < 0) {
    MOX_TRACE(trace, 1, name() << ": retransmission failed (" << sslErrorText() << ")");
    reset();
    return;
  }
  MOX_TRACE(trace, 5, name() << ": flight retransmitted");
  armRetransmission();
}

void UdpPamDtlsSession::releaseConnection() noexcept {
  if (retransmission_) retransmission_->minimumTimeIs(Mox::kNever);
  fd_.del();
  SSL_free(ssl_);
  ssl_ = nullptr;
}

void UdpPamDtlsSession::destroy() {
  MOX_TRACE(trace, 1, "UdpPamDtlsSession::destroy Setting mode to disabled");
  // Tells a connected peer the session is over (close_notify), without waiting for its own.
  if (ssl_ && state() == State::connected) SSL_shutdown(ssl_);
  releaseConnection();
  modeIs(Mode::disabled);
}

void UdpPamDtlsSession::reset() {
  const Mox::Ptr<UdpPamDtlsSession> self(this);
  releaseConnection();
  // A packet still waiting for the handshake is lost with it.
  if (txPktHolder()) {
    owner_->txDropsInc(1);
    txPktHolderDel();
  }
  disconnectedIs(true);
  modeIs(Mode::disabled);
  owner_->peerEnded(sessionIndex(), true);
}

void UdpPamDtlsSession::readableCountInc(U32 delta) {
  UdpPamDtlsSessionBase::readableCountInc(delta);
  if (mode() != Mode::enabled) return;
  if (state() == State::connected) {
    owner_->sessionReadable(this);
  } else {
    doSslControl();
  }
}

void UdpPamDtlsSession::doSslControl() {
  MOX_TRACE(trace, 9, "Set BIO to connected");
  {
    const SessionPeer& peer = sessionIndex();
    std::unique_ptr<BIO_ADDR, decltype(&BIO_ADDR_free)> address(BIO_ADDR_new(), BIO_ADDR_free);
    const in_addr ip{peer.peerIp().valueNbo()};
    if (address &&
        BIO_ADDR_rawmake(address.get(), AF_INET, &ip, sizeof ip, htons(peer.peerPort().value()))) {
      BIO_ctrl_set_connected(SSL_get_rbio(ssl_), address.get());
    }
  }
  ERR_clear_error();
  const int result = isServer() ? SSL_accept(ssl_) : SSL_connect(ssl_);
  MOX_TRACE(trace, 9, name() << ": " << SSL_state_string_long(ssl_));
  if (result == 1) {
    MOX_TRACE(trace, 1, "UdpPamDtlsSession::doSslControl : accept/connect SUCCESS!");
    retransmission_->minimumTimeIs(Mox::kNever);
    stateIs(State::connected);
    const Mox::Ptr<UdpPamDtlsSession> self(this);
    writeParked();
    // Records may have come in the same datagrams as the handshake's last flight.
    if (mode() == Mode::enabled) owner_->sessionReadable(this);
    return;
  }
  handshakeErrCountIs(U16(handshakeErrCount() + 1));
  const U16 limit = isServer() ? serverHandshakeLimit : clientHandshakeLimit;
  if (handshakeErrCount() > limit) {
    MOX_TRACE(trace, 1,
              "UdpPamDtlsSession::doSslControl: SSL_connect/SSL_accept failed more than "
                  << limit << " times, resetting FD and SSL objects");
    reset();
    return;
  }
  const int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    MOX_TRACE(trace, 5, "UdpPamDtlsSession::doSslControl: SSL_ERROR_WANT_READ/WANT_WRITE");
    armRetransmission();
    return;
  }
  MOX_TRACE(
      trace, 1,
      "UdpPamDtlsSession::doSslControl resetting FD and ssl objects (" << sslErrorText() << ")");
  reset();
}

void UdpPamDtlsSession::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT(pkt);
  if (mode() != Mode::enabled) {
    if (owner_) owner_->txDropsInc(1);
    return;
  }
  if (state() == State::connected) {
    // A watcher of the state change may send before the parked packet went: it goes first.
    writeParked();
    sslWrite(*pkt);
    return;
  }
  MOX_TRACE(trace, 5, "UdpPamDtlsSession::txPktIs setting txPktHolder");
  // One packet waits; a newer one takes its place.
  if (txPktHolder()) owner_->txDropsInc(1);
  txPktHolderIs(pkt);
}

void UdpPamDtlsSession::writeParked() {
  const Mox::Ptr<Pkt> parked = txPktHolder();
  if (!parked) return;
  MOX_TRACE(trace, 5, "UdpPamDtlsSession::doSslControl txPktHolder is set");
  txPktHolderDel();
  sslWrite(*parked);
}

void UdpPamDtlsSession::sslWrite(const Pkt& pkt) {
  MOX_ASSERT_TEXT(state() == State::connected,
                  "state() == connected() && \"Session not connected\"");
  MOX_TRACE(trace, 9, "Calling SSL_write()");
  // A record is written from one piece of memory.
  std::string gathered;
  const U8* data = pkt.frontData();
  if (pkt.frontBytes() != pkt.bytes()) {
    gathered = pkt.stringValue();
    data = reinterpret_cast<const U8*>(gathered.data());
  }
  const int result = SSL_write(ssl_, data, int(pkt.bytes()));
  if (result > 0) {
    owner_->txPktsInc(1);
    return;
  }
  owner_->txErrorsInc(1);
  const int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ) {
    MOX_TRACE(trace, 3,
              (error == SSL_ERROR_WANT_WRITE ? "SSL_write: SSL_ERROR_WANT_WRITE"
                                             : "SSL_write: SSL_ERROR_WANT_READ"));
    return;
  }
  MOX_TRACE(trace, 1, "Server: SSL_write error:" << sslErrorText());
  reset();
}

void UdpPamDtlsSession::noteAddresses() {
  if (addressesKnown_) return;
  addressesKnown_ = true;
  SockAddr address{};
  socklen_t length = sizeof address;
  if (getpeername(fd_.descriptor(), &address.base, &length) != 0) {
    MOX_TRACE(trace, 1, "UdpPamDtlsSession::doGetRxPkt() Error: getpeername failed");
  } else {
    MOX_TRACE(trace, 5,
              "UdpPamDtlsSession: Setting source Ip:" << sockAddrIpGenAddr(&address.base));
  }
  length = sizeof address;
  if (getsockname(fd_.descriptor(), &address.base, &length) != 0) {
    MOX_TRACE(trace, 1, "UdpPamDtlsSession::doGetRxPkt() Error: getsockname failed:" << errno);
    return;
  }
  localIp_ = sockAddrIpGenAddr(&address.base).v4Addr();
  localPort_ = sockAddrPort(&address.base);
  MOX_TRACE(trace, 5, "UdpPamDtlsSession: Setting dst Ip:" << localIp_);
}

void UdpPamDtlsSession::doGetRxPkt() {
  if (mode() != Mode::enabled || state() != State::connected) return;
  Pkt::Manager* manager = globalPktManager();
  Mox::Ptr<Pkt> pkt = manager->newPkt();
  if (!pkt) {
    MOX_TRACE(trace, 0, "UdpPamDtlsSession::doGetRxPkt() Failed to obtain new Pkt object");
    return;
  }
  const U32 capacity = owner_->maxRxPktData();
  if (pkt->maxSharedData() < capacity) pkt->sharedBufferIs(manager->newSharedBuffer(capacity));
  U8* data = pkt->newSharedHeadData(capacity);
  const int result = SSL_read(ssl_, data, int(capacity));
  if (result > 0) {
    noteAddresses();
    pkt->delSharedTailData(capacity - U32(result));
    rxPktHolderIs(pkt);
    return;
  }
  switch (SSL_get_error(ssl_, result)) {
    case SSL_ERROR_WANT_READ:
      MOX_TRACE(trace, 9, "SSL_ERROR_WANT_READ");
      return;
    case SSL_ERROR_WANT_WRITE:
      MOX_TRACE(trace, 9, "SSL_ERROR_WANT_WRITE");
      return;
    case SSL_ERROR_ZERO_RETURN:
      MOX_TRACE(trace, 1, "SSL_ERROR_ZERO_RETURN");
      owner_->peerEnded(sessionIndex(), false);
      return;
    default:
      MOX_TRACE(trace, 1, "UdpPamDtlsSession::doGetRxPkt() SSL_read error:" << sslErrorText());
      reset();
  }
}

}  // namespace Korva
