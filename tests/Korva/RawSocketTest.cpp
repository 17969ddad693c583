#include <Korva/RawSocket.h>
#include <Korva/deferClose.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include "SocketTestUtil.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

namespace {

using Korva::EthSocket;
using Korva::IpAddr;
using Korva::IpSocket;
using Korva::Protocol;
using Mox::U16;
using Mox::U32;
using SocketTest::expectErrnoFailure;
using SocketTest::packetOf;
using SocketTest::runInNs;
using SocketTest::ScopedNs;
using SocketTest::waitReadable;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

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

}  // namespace
