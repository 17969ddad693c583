#include <Korva/PktSocket.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include "SocketTestUtil.h"
#include "ValueTestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

using Korva::PktSocket;
using Korva::Protocol;
using Mox::U16;
using Mox::U32;
using SocketTest::expectErrnoFailure;
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
}

TEST(ProtocolFailure, BadTextRaisesAndKeepsTheValue) {
  for (const char* bad : {"", "65536", "-1", "ip", "12x", "99999999999999999999"}) {
    Protocol value(17);
    EXPECT_EQ(KorvaTest::failureText([&] { value.stringValueIs(bad); }), "Invalid Protocol");
    EXPECT_EQ(value.value(), 17) << bad;
  }
}

TEST(ProtocolText, SequenceReadsAPrefixOrNothing) {
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

}  // namespace
