// The socket wrappers: PktSocket over a plain UDP socket, raw IP and packet sockets, and TAP
// devices, each against what the kernel reports.
#include <Korva/PktSocket.h>
#include <Korva/RawSocket.h>
#include <Korva/TapSocket.h>
#include <Korva/deferClose.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "SocketTestUtil.h"
#include "ValueTestUtil.h"

namespace {

using Korva::EthSocket;
using Korva::IpAddr;
using Korva::IpSocket;
using Korva::PktSocket;
using Korva::Protocol;
using Korva::TapPktSocket;
using Korva::TapSocket;
using Mox::U16;
using Mox::U32;
using SocketTest::expectErrnoFailure;
using SocketTest::packetOf;
using SocketTest::runInNs;
using SocketTest::ScopedNs;
using SocketTest::waitReadable;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

TEST(ProtocolText, BoundariesRoundTrip) {
  for (U16 number : {0, 1, 9, 10, 0x0800, 0xFFFE, 0xFFFF}) {
    const Protocol printed{number};
    Protocol read;
    read.stringValueIs(valueToStrep(printed));
    EXPECT_EQ(read, printed) << number;
  }
  EXPECT_EQ(valueToStrep(Protocol(Protocol::any)), "65535");
  EXPECT_TRUE(Protocol(65535).isAny());
  for (const char* bad : {"", "65536", "-1", "ip", "12x", "99999999999999999999"}) {
    EXPECT_EQ(KorvaTest::parseFailure(bad, Protocol(17)), "Invalid Protocol") << bad;
  }
  // A sequence read takes a number and stops, or takes nothing.
  const std::string text = "89, x";
  Mox::TextIter it = text.data();
  Protocol value;
  sequenceToValue(it, text.data() + text.size(), &value);
  EXPECT_EQ(value.value(), 89);
  EXPECT_EQ(*it, ',');
  it += 2;
  EXPECT_THROW(sequenceToValue(it, text.data() + text.size(), &value), Mox::RangeException);
  EXPECT_EQ(*it, 'x');
  EXPECT_EQ(value.value(), 89);
}

// A bound UDP socket owned by a PktSocket, and a plain peer socket bound beside it.
class UdpPktSocket : public ::testing::Test {
 protected:
  void SetUp() override {
    sock_ = Mox::make<PktSocket>("udp");
    sock_->descriptorIs(boundUdpSocket(&address_));
    peer_ = boundUdpSocket(&peerAddress_);
  }
  void TearDown() override { close(peer_); }

  static int boundUdpSocket(sockaddr_in* address) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    *address = sockaddr_in{};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof *address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(address), &length), 0);
    return fd;
  }
  void peerSends(const std::string& bytes) {
    ASSERT_EQ(sendto(peer_, bytes.data(), bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address_), sizeof address_),
              ssize_t(bytes.size()));
    ASSERT_TRUE(SocketTest::waitReadable(*sock_));
  }

  Mox::Ptr<PktSocket> sock_;
  sockaddr_in address_{};
  int peer_ = -1;
  sockaddr_in peerAddress_{};
};

TEST_F(UdpPktSocket, ReceivesNothingSilentlyThenADatagramTrimmedThenFailsOnAnEmptyOne) {
  sockaddr_in from{};
  CaptureStderr();
  EXPECT_FALSE(sock_->recvPkt(&from));
  EXPECT_EQ(GetCapturedStderr(), "");

  const std::string payload = "a datagram of some forty-odd bytes, no more";
  peerSends(payload);
  Mox::Ptr<Korva::Pkt> pkt = sock_->recvPkt(&from);
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->stringValue(), payload);
  EXPECT_EQ(from.sin_port, peerAddress_.sin_port);
  EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

  peerSends("");
  EXPECT_EQ(KorvaTest::failureText<Mox::InternalException>([&] { sock_->recvPkt(&from); }),
            "read from tap socket returned 0");
}

TEST_F(UdpPktSocket, SendsBothScatterEntriesAndForcesTheFamilyOrPrintsAndThrows) {
  auto pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs("payload");
  std::memcpy(pkt->newPrivateHeadData(4), "head", 4);
  ASSERT_EQ(pkt->iovecCount(), 2);
  sockaddr_in to = peerAddress_;
  to.sin_family = AF_UNSPEC;  // the wrapper sends as AF_INET whatever it is given
  EXPECT_EQ(sock_->sendPkt(pkt, to), 11);
  char received[32];
  ssize_t n = -1;
  ASSERT_TRUE(Mox::runUntil(
      [&] { return (n = recv(peer_, received, sizeof received, MSG_DONTWAIT)) >= 0; }, 5.0));
  EXPECT_EQ(std::string(received, n), "headpayload");

  pkt->stringValueIs(std::string(70000, 'x'));  // larger than any UDP datagram
  CaptureStderr();
  expectErrnoFailure([&] { sock_->sendPkt(pkt, peerAddress_); }, EMSGSIZE);
  EXPECT_EQ(GetCapturedStderr(),
            "error sending pkt:" + std::to_string(EMSGSIZE) + " " + std::strerror(EMSGSIZE) + "\n");
}

TEST(PktSocketFailure, AFailedReceiveIsPrintedAndThrown) {
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  auto sock = Mox::make<PktSocket>("pipe");
  sock->descriptorIs(pipeEnds[0]);  // recvfrom on a pipe: not a socket
  CaptureStderr();
  sockaddr_in from{};
  expectErrnoFailure([&] { sock->recvPkt(&from); }, ENOTSOCK);
  EXPECT_EQ(GetCapturedStderr(),
            " error is  " + std::to_string(ENOTSOCK) + std::strerror(ENOTSOCK) + "\n");
  close(pipeEnds[1]);
}

TEST(PktSocketDeathTest, ReceivingOnABlockingDescriptorAborts) {
  auto sock = Mox::make<PktSocket>("none");
  sockaddr_in from{};
  EXPECT_DEATH(sock->recvPkt(&from), "Assertion \"fileDescriptor_->nonBlocking\\(\\)\" failed");
}

constexpr U16 kTestProtocol = 253;  // reserved for experimentation (RFC 3692)

int intOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0);
  return value;
}

// Every test runs in a namespace of its own, on a thread that has entered it.
class RawSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ns_ = std::make_unique<ScopedNs>("raw");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    int probe = socket(AF_INET, SOCK_RAW, kTestProtocol);
    if (probe < 0) GTEST_SKIP() << "needs CAP_NET_RAW to open raw sockets";
    close(probe);
  }
  void inNs(const std::function<void()>& body) { runInNs(*ns_, body); }

  std::unique_ptr<ScopedNs> ns_;
};

TEST_F(RawSocketTest, IpSocketsExchangePacketsOverLoopback) {
  inNs([] {
    auto manager = Korva::RawSocketManagerFactory();
    EXPECT_EQ(manager->name(), "RawSocket::Manager");
    auto receiver = manager->newIpSocket("lo", Protocol(kTestProtocol), 0);
    EXPECT_TRUE(receiver->fileDescriptor()->nonBlocking());
    EXPECT_EQ(intOption(receiver->descriptor(), SOL_SOCKET, SO_PROTOCOL), kTestProtocol);
    EXPECT_EQ(intOption(receiver->descriptor(), IPPROTO_IP, IP_HDRINCL), 0);

    const std::string payload = "raw payload";
    CaptureStderr();
    auto sender = manager->newIpSocket("lo", Protocol(kTestProtocol), 0);
    EXPECT_EQ(sender->sendPkt(packetOf(payload), IpAddr(127, 0, 0, 1)), ssize_t(payload.size()));
    ASSERT_TRUE(waitReadable(*receiver));
    sockaddr_in from{};
    auto pkt = receiver->recvPkt(&from);
    EXPECT_EQ(GetCapturedStderr(), "");
    ASSERT_TRUE(pkt);
    // A raw IPv4 socket receives the IP header in front of the payload.
    ASSERT_EQ(pkt->bytes(), 20 + payload.size());
    EXPECT_EQ(pkt->rawByte(9), kTestProtocol);
    EXPECT_EQ(pkt->stringValue().substr(20), payload);
    EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_FALSE(receiver->recvPkt(&from)) << "only one packet was sent";

    // Option bit 0: the packet starts with the sender's own header (from 127.0.0.9, TTL 7).
    auto own = manager->newIpSocket("lo", Protocol(kTestProtocol), IpSocket::headerIncluded);
    std::string header("\x45\0\0\x1e\0\0\0\0\x07\xfd\0\0\x7f\0\0\x09\x7f\0\0\x01", 20);
    ASSERT_GT(own->sendPkt(packetOf(header + "own header"), IpAddr(127, 0, 0, 1)), 0);
    ASSERT_TRUE(waitReadable(*receiver));
    pkt = receiver->recvPkt(&from);
    ASSERT_TRUE(pkt);
    EXPECT_EQ(from.sin_addr.s_addr, IpAddr(127, 0, 0, 9).valueNbo());
    EXPECT_EQ(pkt->rawByte(8), 7) << "the TTL the caller wrote";

    IpSocket any("", Protocol(Protocol::any), 0);
    EXPECT_EQ(intOption(any.descriptor(), SOL_SOCKET, SO_PROTOCOL), IPPROTO_RAW);
    EXPECT_EQ(any.protocol().value(), IPPROTO_RAW);
  });
}

TEST_F(RawSocketTest, DeviceAndBindApplyOrFailWithTheKernelsErrno) {
  inNs([] {
    IpSocket sock("", Protocol(kTestProtocol), 0);
    sock.deviceIs("lo");
    char bound[IFNAMSIZ] = {};
    socklen_t length = sizeof bound;
    ASSERT_EQ(getsockopt(sock.descriptor(), SOL_SOCKET, SO_BINDTODEVICE, bound, &length), 0);
    EXPECT_STREQ(bound, "lo");
    expectErrnoFailure([&] { sock.deviceIs("korva-none0"); }, ENODEV);

    sock.bind(IpAddr(127, 0, 0, 1));
    sockaddr_in local{};
    length = sizeof local;
    ASSERT_EQ(getsockname(sock.descriptor(), reinterpret_cast<sockaddr*>(&local), &length), 0);
    EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    IpSocket other("", Protocol(kTestProtocol), 0);
    expectErrnoFailure([&] { other.bind(IpAddr(192, 0, 2, 1)); }, EADDRNOTAVAIL);
  });
}

TEST_F(RawSocketTest, BufferSizesAreTheKernelsAndAFailedSendThrowsSilently) {
  inNs([] {
    IpSocket sock("", Protocol(kTestProtocol), 0);
    sock.setSendBufSize(20000);
    sock.setRecvBufSize(30000);
    // The kernel doubles what it is given, for its own bookkeeping.
    EXPECT_EQ(sock.sendBufSize(), 40000u);
    EXPECT_EQ(sock.recvBufSize(), 60000u);
    EXPECT_EQ(sock.recvBufSize(), U32(intOption(sock.descriptor(), SOL_SOCKET, SO_RCVBUF)));

    CaptureStderr();
    expectErrnoFailure(
        [&] { sock.sendPkt(packetOf(std::string(70000, 'x')), IpAddr(127, 0, 0, 1)); }, EMSGSIZE);
    EXPECT_EQ(GetCapturedStderr(), "");
  });
}

// --- EthSocket on a veth pair ---

class EthSocketTest : public RawSocketTest {
 protected:
  void SetUp() override {
    RawSocketTest::SetUp();
    if (IsSkipped()) return;
    if (!ns_->ip("link add kva address 02:00:00:00:00:0a type veth peer name kvb") ||
        !ns_->ip("link set kva up") || !ns_->ip("link set kvb up")) {
      GTEST_SKIP() << "cannot create a veth pair (ip link add type veth)";
    }
  }
};

TEST_F(EthSocketTest, ReceivesAnIpv4FrameArrivingOnItsDevice) {
  inNs([] {
    const int before = SocketTest::openDescriptorCount();
    auto sock =
        Korva::RawSocketManagerFactory()->newEthSocket("eth", "kva", Protocol(Protocol::any));
    // The packet socket and the look-up socket, which stays open by design.
    EXPECT_EQ(SocketTest::openDescriptorCount(), before + 2);

    sockaddr_ll bound{};
    socklen_t length = sizeof bound;
    ASSERT_EQ(getsockname(sock->descriptor(), reinterpret_cast<sockaddr*>(&bound), &length), 0);
    EXPECT_EQ(bound.sll_ifindex, int(if_nametoindex("kva")));
    EXPECT_EQ(bound.sll_protocol, htons(0x0800));

    // An independent packet socket sends an IPv4 frame to kva out of the peer end.
    const std::string frame = std::string("\x02\0\0\0\0\x0a\x02\0\0\0\0\x0b\x08\0", 14) +
                              "an IPv4-typed frame body, padded to minimum size...";
    const int tx = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll out{};
    out.sll_family = AF_PACKET;
    out.sll_ifindex = int(if_nametoindex("kvb"));
    ASSERT_EQ(
        sendto(tx, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&out), sizeof out),
        ssize_t(frame.size()));
    close(tx);

    ASSERT_TRUE(waitReadable(*sock));
    sockaddr_in from{};
    auto pkt = sock->recvPkt(&from);
    ASSERT_TRUE(pkt);
    EXPECT_EQ(pkt->stringValue(), frame);

    // The packet socket closes on the closer thread, never on the loop's.
    const Mox::U32 queued = Korva::deferCloseStats().enqueued;
    sock = nullptr;
    EXPECT_EQ(Korva::deferCloseStats().enqueued, queued + 1);
  });
}

TEST_F(EthSocketTest, AMissingDeviceThrowsAndClosesWhatItOpened) {
  inNs([] {
    const int before = SocketTest::openDescriptorCount();
    expectErrnoFailure([] { EthSocket("eth", "korva-none0", Protocol(Protocol::any)); }, ENODEV);
    EXPECT_EQ(SocketTest::openDescriptorCount(), before);
  });
}

// --- TAP devices ---

constexpr const char* kPermissionHint = " (try: sudo chmod 666 /dev/net/tun)";
constexpr const char* kKernelHint = " (is the kernel tun-enabled?)";

// Drops CAP_NET_ADMIN from the calling thread only (capabilities are per thread).
bool dropNetAdmin() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~(1u << CAP_NET_ADMIN);
  return syscall(SYS_capset, &header, data) == 0;
}

class TapSocketTest : public RawSocketTest {
 protected:
  void SetUp() override {
    if (access("/dev/net/tun", F_OK) != 0) GTEST_SKIP() << "no /dev/net/tun on this machine";
    RawSocketTest::SetUp();
  }
};

TEST_F(TapSocketTest, AFailedIoctlNamesItselfWithTheKernelHintAndCloses) {
  inNs([] {
    EXPECT_EQ(KorvaTest::failureText<Mox::Exception>([] { TapSocket("bad/name", TapSocket::tap); }),
              std::string("ioctl TUNSETIFF: ") + std::strerror(EINVAL) + kKernelHint);
    TapSocket first("ktap1", TapSocket::tap);
    const int before = SocketTest::openDescriptorCount();
    EXPECT_EQ(KorvaTest::failureText<Mox::Exception>([] { TapSocket("ktap1", TapSocket::tap); }),
              std::string("ioctl TUNSETIFF: ") + std::strerror(EBUSY) + kKernelHint);
    EXPECT_EQ(SocketTest::openDescriptorCount(), before) << "the failed open is closed";
  });
}

TEST_F(TapSocketTest, MissingPermissionGivesTheChmodHint) {
  inNs([] {
    if (!dropNetAdmin()) GTEST_SKIP() << "cannot drop CAP_NET_ADMIN";
    EXPECT_EQ(KorvaTest::failureText<Mox::Exception>([] { TapSocket("ktap2", TapSocket::tap); }),
              std::string("ioctl TUNSETIFF: ") + std::strerror(EPERM) + kPermissionHint);
  });
}

std::string testFrame(const std::string& body) {
  return std::string("\x02\x00\x00\x00\x00\x01\x02\x00\x00\x00\x00\x02\x88\xB5", 14) + body;
}

// Every type makes a TAP device without packet information: Ethernet frames cross as they are.
TEST_F(TapSocketTest, FramesCrossTheDeviceBothWays) {
  inNs([&] {
    auto tap = Mox::make<TapPktSocket>("ktap3", TapSocket::tun);
    EXPECT_TRUE(tap->fileDescriptor()->nonBlocking());
    ASSERT_TRUE(ns_->ip("link set ktap3 up"));
    // A packet socket on the device, for the frames' type only, is the kernel's side.
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(0x88B5);  // local experimental
    link.sll_ifindex = int(if_nametoindex("ktap3"));
    const int kernel = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, link.sll_protocol);
    ASSERT_EQ(bind(kernel, reinterpret_cast<sockaddr*>(&link), sizeof link), 0);

    // Agent to kernel: writev of both scatter entries.
    auto pkt = Korva::globalPktManager()->newPkt();
    const std::string outFrame = testFrame("to the kernel, fifty bytes or so of body.");
    pkt->stringValueIs(outFrame.substr(6));
    std::memcpy(pkt->newPrivateHeadData(6), outFrame.data(), 6);
    EXPECT_EQ(tap->sendmsg(pkt), ssize_t(outFrame.size()));
    char received[256];
    ssize_t n = -1;
    ASSERT_TRUE(
        Mox::runUntil([&] { return (n = recv(kernel, received, sizeof received, 0)) >= 0; }, 5.0));
    EXPECT_EQ(std::string(received, n), outFrame);

    // Kernel to agent: the device delivers other traffic too (IPv6 once it is up), so read
    // until this frame shows up.
    const std::string inFrame = testFrame("to the agent, also about fifty bytes of body.");
    ASSERT_EQ(sendto(kernel, inFrame.data(), inFrame.size(), 0, reinterpret_cast<sockaddr*>(&link),
                     sizeof link),
              ssize_t(inFrame.size()));
    close(kernel);
    bool seen = false;
    sockaddr_in from;
    std::memset(&from, 0xAB, sizeof from);
    ASSERT_TRUE(Mox::runUntil(
        [&] {
          while (auto frame = tap->recvPkt(&from)) seen = seen || frame->stringValue() == inFrame;
          return seen;
        },
        5.0));
    EXPECT_EQ(from.sin_family, 0) << "a device has no peer address: the buffer is zeroed";
    EXPECT_EQ(from.sin_addr.s_addr, 0u);
  });
  EXPECT_FALSE(ns_->ip("link show ktap3")) << "the device goes with its descriptor";
}

}  // namespace
