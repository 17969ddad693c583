#include <Korva/SimpleTcpPduPam.h>

#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "TcpTestUtil.h"

namespace {

using namespace TcpTest;
using Korva::SimpleTcpPduPam;
using Korva::TcpPduPam;

// The peer: connects, writes PDUs framed by hand in random pieces (several PDUs in one write,
// one PDU over many), keeps a copy of the whole PDUs it wrote in a file, then ends as `mode`
// says.
constexpr const char* kPeer = R"(
import random, socket, sys
port, mode, seed, path = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), sys.argv[4]
rng = random.Random(seed)
def pdu(n, length=None):
    b = bytearray(rng.randbytes(n))
    length = n if length is None else length
    b[2], b[3] = length >> 8, length & 255
    return bytes(b)
s = socket.create_connection(('127.0.0.1', port))
s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
tail = b''
if mode == 'stream':
    sizes = [20, 9600] + [rng.choice([rng.randint(20, 60), rng.randint(20, 9600)]) for _ in range(300)]
elif mode == 'midpdu':
    sizes, tail = [rng.randint(20, 3000) for _ in range(3)], pdu(500)[:250]
elif mode == 'toobig':
    sizes, tail = [100], pdu(120, 9601)
else:
    sizes, tail = [100], pdu(40, 19)
data = b''.join(pdu(n) for n in sizes)
open(path, 'wb').write(data)
out, i = data + tail, 0
while i < len(out):
    n = rng.choice([rng.randint(1, 7), rng.randint(1, 200), rng.randint(1, 30000)])
    s.sendall(out[i:i + n])
    i += n
if mode in ('toobig', 'toosmall'):
    try:
        s.recv(1)
    except ConnectionResetError:
        pass
s.close()
)";

// The PDUs of a stream framed as SimpleTcpPduPam frames them.
std::vector<std::string> splitPdus(const std::string& stream) {
  std::vector<std::string> pdus;
  for (size_t at = 0; at + 4 <= stream.size();) {
    const size_t length = size_t(Mox::U8(stream[at + 2])) << 8 | Mox::U8(stream[at + 3]);
    pdus.push_back(stream.substr(at, length));
    at += length;
  }
  return pdus;
}

// A TcpFd on one end of a local stream pair (a stream socket that is not TCP); the other
// end goes to `peer`, closed when the test is done with it.
Ptr<Korva::TcpFd> pairedTcpFd(int* peer) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return nullptr;
  Ptr<Korva::TcpFd> fd = Korva::tcpFdFactory("pair");
  fd->descriptorIs(pair[0]);
  *peer = pair[1];
  return fd;
}

// A server in a throwaway namespace; each test takes the first connection accepted.
class TcpPduPamTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!ns_.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    ASSERT_TRUE(ns_.ip("link set lo up"));
    server_ = std::make_unique<Server>(wheel_, ns_.name(), "127.0.0.1", kPort);
    ASSERT_TRUE(server_->sm->startListener()) << server_->status->reason();
  }

  Ptr<Korva::TcpFd> accepted() {
    EXPECT_TRUE(runUntilBounded([&] { return server_->status->connSocketSize() > 0; }, 5.0));
    Ptr<Korva::TcpFd> fd = server_->status->getConnSocket().fd();
    if (fd) fd->edgeTriggeredIs(GetParam());
    return fd;
  }

  // The whole PDUs the peer wrote.
  std::string expectedStream() const {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }

  static constexpr Mox::U16 kPort = 7100;
  SocketTest::ScopedNs ns_{"tcpp"};
  Ptr<Pylon::TimerWheel> wheel_ = Mox::make<Pylon::TimerWheel>("tcp");
  std::unique_ptr<Server> server_;
  std::string path_ = "/tmp/korva-tcpp-" + std::to_string(getpid()) + ".bin";
};

TEST_P(TcpPduPamTest, RandomPiecesFromAPythonPeerArriveAsWholePdusExactlyOnce) {
  for (int seed : {1, 2}) {
    SpawnedPython peer(ns_.name(), kPeer,
                       {std::to_string(kPort), "stream", std::to_string(seed), path_});
    ASSERT_TRUE(peer.started());
    Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(accepted());
    PduCollector collector(pam.get());
    pam->enabledIs(true);
    ASSERT_TRUE(runUntilBounded([&] { return pam->rxErrors() > 0; }, 10.0));
    EXPECT_EQ(peer.finish(), 0);
    EXPECT_EQ(pam->rxErrorReason(), "Connection closed by peer");
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(collector.pdus, splitPdus(expectedStream())) << "seed " << seed;
    EXPECT_EQ(collector.pdus.size(), 302u);
  }
  std::remove(path_.c_str());
}

TEST_P(TcpPduPamTest, BadEndingsAreReadErrorsThatKeepTheWholePdusBefore) {
  const struct {
    const char* mode;
    const char* reason;
    int unreadBytes;  // still in the socket: the rest of the bad PDU is never read
  } cases[] = {
      {"midpdu", "Connection closed by peer", 0},
      {"toobig", "PDU length too big", 100},
      {"toosmall", "PDU length too small", 20},
  };
  for (const auto& c : cases) {
    SpawnedPython peer(ns_.name(), kPeer, {std::to_string(kPort), c.mode, "3", path_});
    Ptr<Korva::TcpFd> fd = accepted();
    ASSERT_TRUE(fd);
    Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
    PduCollector collector(pam.get());
    pam->enabledIs(true);
    ASSERT_TRUE(runUntilBounded([&] { return pam->rxErrors() > 0; }, 10.0)) << c.mode;
    EXPECT_EQ(pam->rxErrorReason(), c.reason);
    EXPECT_FALSE(pam->rxPktHolderShadow()) << "the partial PDU is dropped";
    EXPECT_FALSE(fd->notifyOnReadable());
    EXPECT_EQ(collector.pdus, splitPdus(expectedStream())) << c.mode;
    // Arrivals wake the loop through a second watch of the same socket.
    auto arrivals = Mox::make<Mox::FileDescriptor>("arrivals", dup(fd->descriptor()));
    arrivals->edgeTriggeredIs(true);
    int unread = -1;
    EXPECT_TRUE(runUntilBounded(
        [&] { return ioctl(fd->descriptor(), FIONREAD, &unread) == 0 && unread == c.unreadBytes; },
        5.0))
        << c.mode << ": " << unread;
    pam = nullptr;
    arrivals = nullptr;
    fd->cleanup();
    EXPECT_EQ(peer.finish(), 0);
  }
  std::remove(path_.c_str());
}

TEST_P(TcpPduPamTest, PartialWritesKeepOnlyTheRestAndDeliverEveryByteOnce) {
  Client client(wheel_, ns_.name(), "127.0.0.1", kPort);
  // Small buffers at both ends (accepted sockets inherit the listener's).
  ASSERT_EQ(Korva::setSocketOptionInteger(server_->sm->fd()->descriptor(), SOL_SOCKET, SO_RCVBUF,
                                          4096, false),
            0);
  client.sm->startConnection();
  ASSERT_TRUE(runUntilBounded([&] { return client.connected(); }, 5.0)) << client.status->reason();
  Ptr<Korva::TcpFd> clientFd = client.status->connSocket().fd();
  clientFd->edgeTriggeredIs(GetParam());
  ASSERT_EQ(
      Korva::setSocketOptionInteger(clientFd->descriptor(), SOL_SOCKET, SO_SNDBUF, 4096, false), 0);
  Ptr<SimpleTcpPduPam> sender = Korva::simpleTcpPduPamFactory(clientFd);
  sender->enabledIs(true);
  Ptr<SimpleTcpPduPam> receiver = Korva::simpleTcpPduPamFactory(accepted());

  std::vector<std::string> sent;
  while (sender->writable() && sent.size() < 200) {
    sent.push_back(pdu(9600, char('a' + sent.size() % 26)));
    sender->txPktIs(packetOf(sent.back()));
  }
  ASSERT_FALSE(sender->writable()) << "the kernel took every PDU whole";
  ASSERT_TRUE(sender->txPktHolderShadow());
  EXPECT_EQ(sender->txPktHolderShadow()->bytes(), sender->txRemainingLength());
  EXPECT_GT(sender->txRemainingLength(), 0);
  EXPECT_EQ(sender->txPktHolderShadow()->stringValue(),
            sent.back().substr(9600 - sender->txRemainingLength()));
  EXPECT_TRUE(clientFd->notifyOnWritable());
  // The rest goes first: another send now breaks the contract.
  EXPECT_DEATH(sender->txPktIs(packetOf(pdu(20, 'x'))), "\"writable\\(\\)\"");

  // Gathered sends go the same way once the rest is out.
  PduCollector collector(receiver.get());
  receiver->enabledIs(true);
  ASSERT_TRUE(runUntilBounded([&] { return sender->writable(); }, 5.0));
  EXPECT_FALSE(sender->txPktHolderShadow());
  sent.push_back(pdu(5020, 'G'));
  iovec pieces[] = {{sent.back().data(), 20}, {sent.back().data() + 20, 5000}};
  sender->txIovIs(pieces, 2);
  ASSERT_TRUE(runUntilBounded([&] { return collector.pdus.size() == sent.size(); }, 10.0));
  EXPECT_EQ(collector.pdus, sent);
  EXPECT_TRUE(sender->writable());
  EXPECT_EQ(sender->txErrors(), 0u);
  EXPECT_EQ(receiver->rxErrors(), 0u);
  EXPECT_EQ(client.status->connectionSuccessCount(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Triggering, TcpPduPamTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "edge" : "level"; });

TEST(TcpPduPam, KeepaliveIsSetInOrderAndReadsBack) {
  const int sd = socket(AF_INET, SOCK_STREAM, 0);
  Ptr<Korva::TcpFd> fd = Korva::tcpFdFactory("keepalive");
  fd->descriptorIs(sd);
  Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
  const auto option = [&](int level, int name) {
    int value = -1;
    Korva::getSocketOptionInteger(sd, level, name, &value);
    return value;
  };
  pam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 5, 4));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 30);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 5);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 4);
  pam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 0, 4));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0) << "any value 0 switches it off";
  EXPECT_EQ(pam->tcpOptErrors(), 0u);

  // A stream socket that is not TCP takes SO_KEEPALIVE but not the TCP options.
  int peer = -1;
  Ptr<SimpleTcpPduPam> unixPam = Korva::simpleTcpPduPamFactory(pairedTcpFd(&peer));
  unixPam->keepaliveOptsIs(Korva::TcpKeepaliveOptions(30, 5, 4));
  EXPECT_EQ(unixPam->tcpOptErrors(), 1u);
  EXPECT_EQ(unixPam->tcpOptErrorReason(),
            std::string("setsockopt() error while setting TCP_KEEPIDLE: ") + strerror(EOPNOTSUPP));
  close(peer);
}

TEST(TcpPduPam, ASendThatFailsIsCountedOnceAndTheWriteWatchStops) {
  int peer = -1;
  Ptr<Korva::TcpFd> fd = pairedTcpFd(&peer);
  ASSERT_TRUE(fd);
  Ptr<SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
  pam->enabledIs(true);
  for (int sent = 0; pam->writable() && sent < 1000; ++sent) pam->txPktIs(packetOf(pdu(9600, 'w')));
  ASSERT_TRUE(pam->txPktHolderShadow());
  close(peer);
  ASSERT_TRUE(runUntilBounded([&] { return pam->txErrors() > 0; }, 5.0));
  EXPECT_EQ(pam->txErrorReason(), std::string("Send failed with ") + strerror(EPIPE));
  EXPECT_FALSE(pam->writable());
  // A socket that failed stays writable to the kernel: watching it would spin.
  EXPECT_FALSE(fd->notifyOnWritable());
  runUntilBounded([] { return false; }, 0.05, 50);
  EXPECT_EQ(pam->txErrors(), 1u);
}

TEST(TcpPduPamDeathTest, TheBasePamCannotFramePdus) {
  int peer = -1;
  Ptr<TcpPduPam> plain = Korva::tcpPduPamFactory(pairedTcpFd(&peer));
  EXPECT_DEATH(
      {
        plain->enabledIs(true);
        send(peer, "x", 1, 0);
        runUntilBounded([] { return false; }, 1.0, 100);
      },
      "Need to implement getRemainingLength in a derived class");
  close(peer);
}

}  // namespace
