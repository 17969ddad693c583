#pragma once
// DTLS over the UDP Pam, with OpenSSL 3 as the protocol engine. A UdpPamDtlsServer binds
// its UDP socket like a UdpPam server, answers each new peer's first ClientHello with a
// stateless cookie (HMAC-SHA1 over the peer's IPv4 address and port) and, once the peer
// returns the cookie, gives the peer a UdpPamDtlsSession: its own socket on the server's
// address, connected to the peer, and its own SSL object. A UdpPamDtlsClient makes a session
// to the destination of its first packet; packets sent before the handshake completes wait
// in the session and are written when it does. The agent sends plaintext with txPktIs
// (a server to txDstIpAddr and txPort) and reads decrypted records with rxPkt() when
// readableDataCount moves; rxSrcIpAddr and rxSrcPort then name the peer.
//
//   Mox::Ptr<Korva::UdpPamDtlsServer> server = Korva::udpPamDtlsServerFactory(
//       "dtls", Korva::DtlsConstants::dtlsV12(), "DEFAULT", "server.pem", "ca.pem", "dh.pem");
//   server->rxPortIs(4433);
//   server->modeIs(Korva::UdpPam::Mode::server);
//
// Context set-up failures throw Mox::Exception with the failing step's text and leave
// nothing open. Per-record failures are traced; a session whose handshake or records fail
// is deleted through errorPeer, one whose peer closed it through terminatedPeer.

#include <Korva/UdpPam.h>
#include <Korva/UdpPamDtls.mox.h>
#include <Mox/Clock.h>

#include <openssl/types.h>

#include <array>
#include <deque>
#include <map>
#include <memory>

namespace Korva {

// The DTLS versions a Pam may be made for.
struct DtlsConstants {
  static constexpr U8 dtlsV1() noexcept { return 1; }
  static constexpr U8 dtlsV12() noexcept { return 2; }
};

class UdpPamDtlsSession;

class UdpPamDtls : public UdpPamDtlsBase {
 public:
  using Sessions = std::map<SessionPeer, Mox::Ptr<UdpPamDtlsSession>>;
  // The most sessions a Pam keeps; a further peer is refused until one goes.
  static constexpr size_t maxSessions = 1024;

  ~UdpPamDtls() override;

  // The session of `peer`, or null.
  Mox::Ptr<UdpPamDtlsSession> udpPamDtlsSession(const SessionPeer& peer) const;
  const Sessions& udpPamDtlsSessionColl() const noexcept { return sessions_; }
  const std::array<U8, 16>& cookieSecret() const noexcept { return cookieSecret_; }
  SSL_CTX* sslCtx() const noexcept { return ctx_; }

  // Closes every session (telling connected peers) and disables the Pam.
  void destroy();

 protected:
  UdpPamDtls(const Mox::Name& name, U8 dtlsVersion, const Mox::String8& cipherSuite,
             const Mox::String8& certKeyFile, const Mox::String8& caFile, bool isServer);

  // Makes the OpenSSL context; throws, with nothing left open, when a step fails.
  void handleInitialized();
  // The DH parameters of a server's context (a client has none).
  virtual void useDhParams(SSL_CTX*) {}

  void terminateSessionPeer() override;
  void handleErrorSessionPeer() override;
  void doGetRxPkt() override;
  void doDelSocket() override;

  // Starts a session for `peer` over `ssl` and the connected socket `fd` (both taken over).
  Mox::Ptr<UdpPamDtlsSession> newSession(const SessionPeer& peer, SSL* ssl, int fd);
  // Opens a socket in the Pam's namespace connected to `peer`, first bound to the server's
  // address when `bindLocal`; -1 (traced) when a step fails.
  int connectedSocket(const SessionPeer& peer, bool bindLocal) const;
  // The peer that txDstIpAddr and txPort name.
  SessionPeer destinationPeer() const;
  // Closes and forgets the session of `peer`, if there is one.
  void deleteSession(const SessionPeer& peer);

 private:
  friend class UdpPamDtlsSession;

  // The cookie of the peer of `ssl`, under this Pam's secret (made on first use).
  static int generateCookie(SSL* ssl, unsigned char* cookie, unsigned int* length);

  // A connected session has records to read.
  void sessionReadable(UdpPamDtlsSession* session);
  // The peer closed its session, or (`failed`) the session failed: errorPeer or
  // terminatedPeer names it, which deletes the session.
  void peerEnded(const SessionPeer& peer, bool failed);
  void closeSessions();

  SSL_CTX* ctx_ = nullptr;
  std::array<U8, 16> cookieSecret_{};
  Sessions sessions_;
  // Sessions that reported records, in the order they did; rxPkt() drains them in turn.
  std::deque<Mox::Ptr<UdpPamDtlsSession>> readable_;
};

class UdpPamDtlsServer : public UdpPamDtls {
 public:
  ~UdpPamDtlsServer() override;
  const Mox::String8& dhparamsFile() const noexcept { return dhparamsFile_; }
  // Sends to the session of txDstIpAddr and txPort.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;
  void readableCountInc(U32 delta = 1) override;

 protected:
  UdpPamDtlsServer(const Mox::Name& name, U8 dtlsVersion, const Mox::String8& cipherSuite,
                   const Mox::String8& certKeyFile, const Mox::String8& caFile,
                   const Mox::String8& dhparamsFile);
  void useDhParams(SSL_CTX* ctx) override;
  void doNewSocket() override;
  void doDelSocket() override;

 private:
  friend Mox::Ptr<UdpPamDtlsServer> udpPamDtlsServerFactory(const Mox::Name& name, U8 dtlsVersion,
                                                            const Mox::String8& cipherSuite,
                                                            const Mox::String8& certKeyFile,
                                                            const Mox::String8& caFile,
                                                            const Mox::String8& dhparamsFile);

  // Runs the cookie exchange over what the listening socket received, and gives each peer
  // that returned its cookie a session.
  void handleNewConnections();
  // A fresh SSL object on the listening socket for the next peer; false when none could be
  // made (traced).
  bool newListener();

  Mox::String8 dhparamsFile_;
  SSL* listener_ = nullptr;
};

class UdpPamDtlsClient : public UdpPamDtls {
 public:
  // Sends to the session of txDstIpAddr and txPort, making it first when there is none.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;

 protected:
  UdpPamDtlsClient(const Mox::Name& name, U8 dtlsVersion, const Mox::String8& cipherSuite,
                   const Mox::String8& certKeyFile, const Mox::String8& caFile);
  // The client's sockets belong to its sessions: the Pam opens none of its own.
  void doNewSocket() override {}

 private:
  friend Mox::Ptr<UdpPamDtlsClient> udpPamDtlsClientFactory(const Mox::Name& name, U8 dtlsVersion,
                                                            const Mox::String8& cipherSuite,
                                                            const Mox::String8& certKeyFile,
                                                            const Mox::String8& caFile);
};

// Each makes the Pam and its OpenSSL context, throwing Mox::Exception when that fails.
Mox::Ptr<UdpPamDtlsServer> udpPamDtlsServerFactory(const Mox::Name& name, U8 dtlsVersion,
                                                   const Mox::String8& cipherSuite,
                                                   const Mox::String8& certKeyFile,
                                                   const Mox::String8& caFile,
                                                   const Mox::String8& dhparamsFile);
Mox::Ptr<UdpPamDtlsClient> udpPamDtlsClientFactory(const Mox::Name& name, U8 dtlsVersion,
                                                   const Mox::String8& cipherSuite,
                                                   const Mox::String8& certKeyFile,
                                                   const Mox::String8& caFile);

// One peer's DTLS session: its own connected socket, SSL object and handshake. The Pam that
// owns it makes it, drives it and deletes it.
class UdpPamDtlsSession : public UdpPamDtlsSessionBase {
 public:
  ~UdpPamDtlsSession() override;

  // Writes the packet as one record once connected; before that it waits in txPktHolder.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;
  void readableCountInc(U32 delta = 1) override;
  // Closes the session (telling a connected peer) and disables it.
  void destroy();

  SSL* ssl() const noexcept { return ssl_; }
  const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const noexcept { return fd_.fileDesc(); }
  // The session's local address and port, known from its first record.
  IpAddr localIp() const noexcept { return localIp_; }
  U16 localPort() const noexcept { return localPort_; }

 protected:
  void doGetRxPkt() override;

 private:
  friend class UdpPamDtls;

  UdpPamDtlsSession(const SessionPeer& sessionIndex, const Mox::Name& peerText, SSL* ssl,
                    UdpPamDtls* owner, bool isServer);
  // Watches the connected socket `fd`; from here on the session is driven by it.
  void start(int fd);
  // Drives the handshake one step.
  void doSslControl();
  void sslWrite(const Pkt& pkt);
  // Writes the packet parked during the handshake, if any.
  void writeParked();
  // Resends the last flight when OpenSSL's retransmission timer ran out.
  class MoxRetransmission : public Mox::Clock::Notifiee {
   public:
    MoxRetransmission(UdpPamDtlsSession* session, const Mox::Ptr<Mox::Clock>& clock)
        : session_(session) {
      notifierIs(clock);
    }
    void onTime() override;

   private:
    UdpPamDtlsSession* session_;
  };

  // Arms the retransmission clock for when OpenSSL's handshake timer runs out (disarms it
  // when none runs).
  void armRetransmission();
  void handleRetransmission();
  // Lets the descriptor and the SSL object go and hands the peer to the owner as failed.
  void reset();
  void releaseConnection() noexcept;
  // Records the local and peer addresses of the socket, once.
  void noteAddresses();

  SSL* ssl_;
  UdpPamDtls* owner_;
  PamFd fd_;
  Mox::Ptr<Mox::Clock> retransmission_;
  std::unique_ptr<MoxRetransmission> retransmissionReactor_;
  bool addressesKnown_ = false;
  IpAddr localIp_;
  U16 localPort_ = 0;
};

}  // namespace Korva
