#include <Korva/NetnsUtils.h>
#include <Korva/SocketUtils.h>
#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DtlsTestUtil.h"
#include "SocketTestUtil.h"

namespace {

using Korva::DtlsConstants;
using Korva::IpAddr;
using Korva::SessionPeer;
using Korva::UdpPam;
using Korva::UdpPamDtls;
using Korva::UdpPamDtlsClient;
using Korva::UdpPamDtlsServer;
using Mox::Ptr;
using Mox::U16;
using SocketTest::packetOf;

const std::string kDhParams = std::string(KORVA_SOURCE_DIR) + "/tests/Korva/data/ffdhe2048.pem";
const IpAddr kLoopback(127, 0, 0, 1);

size_t tracesWith(const Mox::TraceCapture& capture, const std::string& text) {
  const auto lines = capture.lines();
  return size_t(std::count_if(lines.begin(), lines.end(), [&](const Mox::TraceLine& line) {
    return line.text.find(text) != std::string::npos;
  }));
}

// An agent of a DTLS Pam: keeps what it reads and, when asked to, echoes it to its sender.
struct Agent : UdpPamDtls::Notifiee {
  Agent(UdpPamDtls* pam, bool echoes) : echoes(echoes) { notifierIs(pam); }
  void onReadableDataCount() override {
    UdpPamDtls& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      received.push_back(pkt->stringValue());
      if (!echoes) continue;
      pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(packetOf(received.back()));
    }
  }
  bool receives(size_t count) {
    return Mox::runUntil([&] { return received.size() >= count; }, 5.0);
  }
  bool echoes;
  std::vector<std::string> received;
};

// The next datagram on `fd` and its sender, running the loop at most 5 s; empty if none came.
std::string nextDatagram(int fd, Korva::SockAddr* from = nullptr) {
  std::string datagram;
  Mox::runUntil(
      [&] {
        char buffer[4096];
        socklen_t length = sizeof(Korva::SockAddr);
        const ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, from ? &from->base : nullptr,
                                   from ? &length : nullptr);
        if (n > 0) datagram.assign(buffer, size_t(n));
        return n > 0;
      },
      5.0);
  return datagram;
}

// A DTLS 1.2 client driven by hand over memory BIOs, so the test sees (and may change)
// every datagram; they travel on a UDP socket of its own, connected to the server.
class HandClient {
 public:
  HandClient(const std::string& ns, U16 port) {
    ctx_.reset(SSL_CTX_new(DTLS_client_method()));
    SSL_CTX_set_min_proto_version(ctx_.get(), DTLS1_2_VERSION);
    ssl_.reset(SSL_new(ctx_.get()));
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(in_, -1);
    SSL_set_bio(ssl_.get(), in_, out_);
    SSL_set_options(ssl_.get(), SSL_OP_NO_QUERY_MTU);
    DTLS_set_link_mtu(ssl_.get(), 1500);
    SSL_set_connect_state(ssl_.get());
    const int fd = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
    socket_ = Mox::make<Mox::FileDescriptor>("hand", fd);
    Korva::socketConnect(fd, Korva::IpGenAddr(kLoopback), port);
    Korva::SockAddr local{};
    socklen_t length = sizeof local;
    getsockname(fd, &local.base, &length);
    peer = SessionPeer(kLoopback, Korva::Port(Korva::sockAddrPort(&local.base)));
  }
  // One handshake step; what OpenSSL wrote goes out as one datagram.
  void step() {
    SSL_do_handshake(ssl_.get());
    std::string datagram(BIO_ctrl_pending(out_), '\0');
    BIO_read(out_, datagram.data(), int(datagram.size()));
    sendRaw(datagram);
  }
  void sendRaw(const std::string& bytes) {
    ASSERT_EQ(send(socket_->descriptor(), bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
  }
  std::string receive() { return nextDatagram(socket_->descriptor()); }
  void deliver(const std::string& datagram) {
    BIO_write(in_, datagram.data(), int(datagram.size()));
  }
  SessionPeer peer;

 private:
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx_{nullptr, SSL_CTX_free};
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
  BIO* in_ = nullptr;
  BIO* out_ = nullptr;
  Ptr<Mox::FileDescriptor> socket_;
};

// A handshake record no session can use: its epoch is neither the current nor the next.
const std::string kGarbageRecord("\x16\xfe\xfd\x00\x07\x00\x00\x00\x00\x00\x01\x00\x04junk", 17);

// Sends garbage records through `send`, each once the last one was handled, until the session
// resets; the number sent, at most `limit`.
int garbageUntilReset(const Korva::UdpPamDtlsSession& session, const std::function<void()>& send,
                      int limit) {
  int sent = 0;
  while (session.ssl() && sent < limit) {
    const U16 failures = session.handshakeErrCount();
    send();
    ++sent;
    if (!Mox::runUntil([&] { return session.handshakeErrCount() != failures || !session.ssl(); },
                       5.0)) {
      break;
    }
  }
  return sent;
}

bool isHelloVerifyRequest(const std::string& datagram) {
  return datagram.size() > 14 && datagram[0] == 22 && datagram[13] == 3;
}

class UdpPamDtlsTest : public DtlsTest::Fixture {
 protected:
  Ptr<UdpPamDtlsServer> server(U16 port, Mox::U8 version = DtlsConstants::dtlsV12(),
                               const std::string& dh = kDhParams) {
    Ptr<UdpPamDtlsServer> pam = Korva::udpPamDtlsServerFactory(
        "server", version, "DEFAULT", file("server.pem"), file("ca.pem"), dh);
    pam->netNsIs(Korva::NamespaceName(ns()));
    pam->rxIpAddrIs(kLoopback);
    pam->rxPortIs(port);
    pam->modeIs(UdpPam::Mode::server);
    return pam;
  }
  Ptr<UdpPamDtlsClient> client(U16 port, Mox::U8 version = DtlsConstants::dtlsV12()) {
    Ptr<UdpPamDtlsClient> pam = Korva::udpPamDtlsClientFactory("client", version, "DEFAULT",
                                                               file("client.pem"), file("ca.pem"));
    pam->netNsIs(Korva::NamespaceName(ns()));
    pam->txDstIpAddrIs(kLoopback);
    pam->txPortIs(port);
    pam->modeIs(UdpPam::Mode::client);
    return pam;
  }
  // A plain socket at the loopback's `port`, a peer that is silent unless the test speaks.
  Ptr<Mox::FileDescriptor> plainPeer(U16 port) {
    const int fd = Korva::socketAt(AF_INET, SOCK_DGRAM, 0, ns());
    EXPECT_EQ(Korva::socketBind(fd, Korva::IpGenAddr(kLoopback), port), 0);
    return Mox::make<Mox::FileDescriptor>("peer", fd);
  }
};

// openssl s_client, with its client certificate, against the server: lines both ways, in
// both versions, over DHE so the DH parameters file is what keys the session.
TEST_F(UdpPamDtlsTest, OpenSslClientExchangesLinesWithTheServer) {
  struct Case {
    Mox::U8 version;
    const char* option;
    const char* ciphers;
  };
  for (const Case& c :
       {Case{DtlsConstants::dtlsV12(), "-dtls1_2", "DHE-RSA-AES128-GCM-SHA256"},
        Case{DtlsConstants::dtlsV1(), "-dtls1", "DHE-RSA-AES128-SHA:@SECLEVEL=0"}}) {
    SCOPED_TRACE(c.option);
    Ptr<UdpPamDtlsServer> pam = server(4433, c.version);
    Agent agent(pam.get(), true);
    DtlsTest::Peer peer(DtlsTest::openssl(
        ns(), {"s_client", c.option, "-connect", "127.0.0.1:4433", "-cert", file("client.pem"),
               "-key", file("client.pem"), "-CAfile", file("ca.pem"), "-verify_return_error",
               "-cipher", c.ciphers, "-quiet"}));
    peer.send("ping from s_client\n");
    ASSERT_TRUE(agent.receives(1)) << peer.drained();
    EXPECT_EQ(agent.received[0], "ping from s_client\n");
    ASSERT_TRUE(peer.prints("ping from s_client")) << peer.drained();
    pam->txPktIs(packetOf("line from the server\n"));
    EXPECT_TRUE(peer.prints("line from the server")) << peer.drained();
    EXPECT_EQ(pam->udpPamDtlsSessionColl().size(), 1u);
    EXPECT_EQ(pam->rxPkts(), 1u);
    EXPECT_EQ(pam->txPkts(), 2u);
  }
}

TEST_F(UdpPamDtlsTest, ServerRefusesAClientWithoutCertificate) {
  Ptr<UdpPamDtlsServer> pam = server(4434);
  DtlsTest::Peer peer(DtlsTest::openssl(ns(), {"s_client", "-dtls1_2", "-connect", "127.0.0.1:4434",
                                               "-CAfile", file("ca.pem"), "-quiet"}));
  ASSERT_TRUE(Mox::runUntil([&] { return pam->errorPeer() != SessionPeer(); }, 5.0))
      << peer.drained();
  EXPECT_TRUE(pam->udpPamDtlsSessionColl().empty());
  EXPECT_EQ(pam->activeSessionSize(), 0u);
}

// openssl s_server, requiring a client certificate, against the client; the client's
// first packet is sent before there is a handshake and arrives after it.
TEST_F(UdpPamDtlsTest, ClientExchangesLinesWithOpenSslServer) {
  DtlsTest::Peer peer(DtlsTest::openssl(
      ns(),
      {"s_server", "-dtls1_2", "-accept", "4435", "-cert", file("server.pem"), "-key",
       file("server.pem"), "-CAfile", file("ca.pem"), "-Verify", "1", "-verify_return_error"}));
  ASSERT_TRUE(peer.prints("ACCEPT")) << peer.drained();
  Ptr<UdpPamDtlsClient> pam = client(4435);
  Agent agent(pam.get(), false);
  pam->txPktIs(packetOf("sent before the handshake\n"));
  ASSERT_TRUE(peer.prints("sent before the handshake")) << peer.drained();
  peer.send("reply from s_server\n");
  ASSERT_TRUE(agent.receives(1));
  EXPECT_EQ(agent.received[0], "reply from s_server\n");
  EXPECT_EQ(pam->rxSrcPort(), 4435);
}

TEST_F(UdpPamDtlsTest, CookieExchangeComesBeforeAnySession) {
  Ptr<UdpPamDtlsServer> pam = server(4436);
  HandClient hand(ns(), 4436);
  hand.step();
  const std::string verify = hand.receive();
  ASSERT_TRUE(isHelloVerifyRequest(verify));
  EXPECT_TRUE(pam->cookieInitialized());
  EXPECT_TRUE(pam->udpPamDtlsSessionColl().empty());
  // The cookie is the request's last bytes: the client returns it with one bit changed.
  std::string forged = verify;
  forged.back() = char(forged.back() ^ 1);
  hand.deliver(forged);
  hand.step();
  ASSERT_TRUE(isHelloVerifyRequest(hand.receive())) << "a forged cookie is answered like none";
  EXPECT_TRUE(pam->udpPamDtlsSessionColl().empty());
  HandClient genuine(ns(), 4436);
  genuine.step();
  genuine.deliver(genuine.receive());
  genuine.step();
  ASSERT_TRUE(Mox::runUntil([&] { return bool(pam->udpPamDtlsSession(genuine.peer)); }, 5.0));
  EXPECT_FALSE(pam->udpPamDtlsSession(hand.peer));
  EXPECT_TRUE(pam->activeSession(genuine.peer));
}

// Each garbage record is one more failed handshake call; the server's seventh resets it.
TEST_F(UdpPamDtlsTest, ServerSessionResetsAtItsSeventhHandshakeFailure) {
  Ptr<UdpPamDtlsServer> pam = server(4437);
  Mox::TraceCapture capture;
  Mox::traceConfigIs("UdpPamDtls");
  HandClient hand(ns(), 4437);
  hand.step();
  hand.deliver(hand.receive());
  hand.step();
  ASSERT_TRUE(Mox::runUntil([&] { return bool(pam->udpPamDtlsSession(hand.peer)); }, 5.0));
  Ptr<Korva::UdpPamDtlsSession> session = pam->udpPamDtlsSession(hand.peer);
  EXPECT_EQ(garbageUntilReset(
                *session, [&] { hand.sendRaw(kGarbageRecord); }, 20),
            6);
  Mox::traceConfigIs("");
  EXPECT_EQ(session->handshakeErrCount(), 7);
  EXPECT_EQ(tracesWith(capture, "UdpPamDtlsSession::doSslControl: SSL_ERROR_WANT_READ/WANT_WRITE"),
            6u);
  EXPECT_EQ(tracesWith(capture,
                       "SSL_connect/SSL_accept failed more than 6 times, resetting FD "
                       "and SSL objects"),
            1u);
  EXPECT_EQ(pam->errorPeer(), hand.peer);
  EXPECT_FALSE(pam->udpPamDtlsSession(hand.peer));
  EXPECT_TRUE(session->disconnected());
}

// A peer that answers the client's hello with garbage only: the client's 21st failure
// resets its session.
TEST_F(UdpPamDtlsTest, ClientSessionResetsAtItsTwentyFirstHandshakeFailure) {
  Ptr<Mox::FileDescriptor> fake = plainPeer(4438);
  const int fd = fake->descriptor();
  Ptr<UdpPamDtlsClient> pam = client(4438);
  Mox::TraceCapture capture;
  Mox::traceConfigIs("UdpPamDtls");
  pam->txPktIs(packetOf("never sent"));
  Korva::SockAddr from{};
  ASSERT_FALSE(nextDatagram(fd, &from).empty());
  const SessionPeer peer(kLoopback, Korva::Port(4438));
  Ptr<Korva::UdpPamDtlsSession> session = pam->udpPamDtlsSession(peer);
  ASSERT_TRUE(session);
  auto sendGarbage = [&] {
    sendto(fd, kGarbageRecord.data(), kGarbageRecord.size(), 0, &from.base, sizeof from.v4);
  };
  EXPECT_EQ(garbageUntilReset(*session, sendGarbage, 40), 20);
  Mox::traceConfigIs("");
  EXPECT_EQ(tracesWith(capture, "UdpPamDtlsSession::doSslControl: SSL_ERROR_WANT_READ/WANT_WRITE"),
            20u);
  EXPECT_EQ(tracesWith(capture, "failed more than 20 times, resetting FD and SSL objects"), 1u);
  EXPECT_EQ(pam->errorPeer(), peer);
  EXPECT_FALSE(pam->udpPamDtlsSession(peer));
  EXPECT_EQ(pam->txDrops(), 1u) << "the parked packet";
}

// A hello that gets no answer is sent again when OpenSSL's timer (a second) runs out.
TEST_F(UdpPamDtlsTest, ClientResendsAnUnansweredHello) {
  Ptr<Mox::FileDescriptor> silent = plainPeer(4441);
  Ptr<UdpPamDtlsClient> pam = client(4441);
  pam->txPktIs(packetOf("waits"));
  const std::string hellos[] = {nextDatagram(silent->descriptor()),
                                nextDatagram(silent->descriptor())};
  ASSERT_FALSE(hellos[1].empty());
  // The same ClientHello in a record of the next sequence number.
  EXPECT_EQ(hellos[0][13], 1);
  EXPECT_EQ(hellos[0].substr(13), hellos[1].substr(13));
  EXPECT_NE(hellos[0].substr(0, 13), hellos[1].substr(0, 13));
}

// Our client and server: the packet parked before the handshake arrives once and first;
// the client's destroy() tells the server, which deletes the session.
TEST_F(UdpPamDtlsTest, ParkedPacketArrivesOnceAndDestroyEndsTheServerSession) {
  Ptr<UdpPamDtlsServer> serverPam = server(4439);
  Agent serverAgent(serverPam.get(), true);
  Ptr<UdpPamDtlsClient> clientPam = client(4439);
  Agent clientAgent(clientPam.get(), false);
  clientPam->txPktIs(packetOf("early"));
  ASSERT_TRUE(clientAgent.receives(1));
  clientPam->txPktIs(packetOf("later"));
  ASSERT_TRUE(clientAgent.receives(2));
  EXPECT_EQ(serverAgent.received, (std::vector<std::string>{"early", "later"}));
  EXPECT_EQ(clientAgent.received, (std::vector<std::string>{"early", "later"}));
  const SessionPeer clientPeer(
      kLoopback, Korva::Port(clientPam->udpPamDtlsSessionColl().begin()->second->localPort()));
  clientPam->destroy();
  EXPECT_TRUE(clientPam->udpPamDtlsSessionColl().empty());
  EXPECT_EQ(clientPam->mode(), UdpPam::Mode::disabled);
  ASSERT_TRUE(Mox::runUntil([&] { return serverPam->terminatedPeer() != SessionPeer(); }, 5.0));
  EXPECT_EQ(serverPam->terminatedPeer(), clientPeer);
  EXPECT_TRUE(serverPam->udpPamDtlsSessionColl().empty());
}

// Each broken input fails its own step with its own text, and nothing stays open.
TEST_F(UdpPamDtlsTest, SetUpFailuresThrowTheStepAndLeaveNothingOpen) {
  struct Case {
    const char* step;
    std::string cipherSuite, certKeyFile, caFile, dhparamsFile;
  };
  const std::string missing = file("missing.pem");
  const std::vector<Case> cases = {
      {"SSL_CTX_set_cipher_list error", "NO-SUCH-CIPHER", file("server.pem"), file("ca.pem"),
       kDhParams},
      {"PEM_read_DHparams error", "DEFAULT", file("server.pem"), file("ca.pem"), missing},
      {"PEM_read_DHparams error", "DEFAULT", file("server.pem"), file("ca.pem"), file("ca.pem")},
      {"SSL_CTX_use_certificate_file error", "DEFAULT", missing, file("ca.pem"), kDhParams},
      {"SSL_CTX_use_PrivateKey_file error", "DEFAULT", file("ca.pem"), file("ca.pem"), kDhParams},
      // OpenSSL 3 refuses a key of the certificate's type that does not match it when the key
      // is loaded; one of another type is only found out by the check.
      {"SSL_CTX_use_PrivateKey_file error", "DEFAULT", file("mismatched.pem"), file("ca.pem"),
       kDhParams},
      {"SSL_CTX_check_private_key error", "DEFAULT", file("othertype.pem"), file("ca.pem"),
       kDhParams},
      {"SSL_CTX_load_verify_locations error", "DEFAULT", file("server.pem"), missing, kDhParams},
  };
  const int descriptors = SocketTest::openDescriptorCount();
  for (const Case& c : cases) {
    try {
      Korva::udpPamDtlsServerFactory("bad", DtlsConstants::dtlsV12(), c.cipherSuite, c.certKeyFile,
                                     c.caFile, c.dhparamsFile);
      ADD_FAILURE() << "no failure, expected " << c.step;
    } catch (const Mox::Exception& error) {
      EXPECT_STREQ(error.what(), c.step);
    }
  }
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
}

TEST_F(UdpPamDtlsTest, DeathOnAnIpv6DestinationOrAnotherVersion) {
  Ptr<UdpPamDtlsClient> pam = client(4440);
  pam->ipv6EnIs(true);
  EXPECT_DEATH(pam->txPktIs(packetOf("x")),
               "Assertion \"!ipv6En\\(\\) && \"ipv6En\\(\\) = true, not supported yet\"\" failed");
  EXPECT_DEATH(
      Korva::udpPamDtlsClientFactory("v3", 3, "DEFAULT", file("client.pem"), file("ca.pem")),
      "Assertion \"dtlsVersion\\(\\) == DtlsConstants::dtlsV1\\(\\)\" failed");
}

}  // namespace
