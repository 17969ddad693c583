#include <Korva/TapSocket.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include "SocketTestUtil.h"
#include "ValueTestUtil.h"

#include <linux/capability.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace {

using Korva::TapPktSocket;
using Korva::TapSocket;
using Mox::U32;
using SocketTest::runInNs;
using SocketTest::ScopedNs;

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

class TapSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/dev/net/tun", F_OK) != 0) GTEST_SKIP() << "no /dev/net/tun on this machine";
    ns_ = std::make_unique<ScopedNs>("tap");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
  }
  void inNs(const std::function<void()>& body) { runInNs(*ns_, body); }

  std::unique_ptr<ScopedNs> ns_;
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
