// Pams under load and pressure: a flood from a peer that is not our code, a process out of
// descriptors, the packet manager at its limit, and a namespace deleted by someone else
// while Pams live in it.
#include <Korva/NetnsUtils.h>
#include <Korva/Pkt.h>
#include <Korva/UdpPam.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Trace.h>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "SocketTestUtil.h"

namespace {

using Korva::IpAddr;
using Korva::UdpPam;
using Mox::Ptr;
using Mode = UdpPam::Mode;

constexpr Mox::U16 kPort = 7001;

// Counts every datagram the Pam hands out, as a busy agent's reactor would.
struct Counter : UdpPam::Notifiee {
  explicit Counter(UdpPam* pam) { notifierIs(pam); }
  void onReadableCount() override {
    while (notifier()->rxPkt()) ++received;
  }
  long long received = 0;
};

class Pressure : public SocketTest::NamespaceTest {
 protected:
  Ptr<UdpPam> server(const std::string& name) {
    Ptr<UdpPam> pam = Korva::udpPamFactory(name);
    pam->netNsIs(Korva::NamespaceName(ns_->name()));
    pam->rxIpAddrIs(IpAddr(127, 0, 0, 1));
    pam->rxPortIs(kPort);
    pam->modeIs(Mode::server);
    return pam;
  }
};

TEST_F(Pressure, EveryDatagramOfAFloodIsReceivedOrCountedDroppedByTheKernel) {
  constexpr long long kSent = 1000000;
  Ptr<UdpPam> pam = server("flood");
  Counter counter(pam.get());
  const long long dropsBefore = SocketTest::kernelCounter(*ns_, "Udp", "RcvbufErrors");
  // The sender's end wakes the loop through an eventfd the loop watches.
  auto done = Mox::make<Mox::FileDescriptor>("sent", eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  std::atomic<bool> sent = false;
  std::string report;
  std::thread sender([&] {
    SocketTest::PythonPeer peer(*ns_,
                                "import socket\n"
                                "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                                "s.connect(('127.0.0.1', " +
                                    std::to_string(kPort) +
                                    "))\n"
                                    "send = s.send\n"
                                    "for _ in range(" +
                                    std::to_string(kSent) +
                                    "):\n"
                                    "    send(b'0123456789abcdef')\n"
                                    "print('sent', flush=True)\n");
    report = peer.line();
    sent = true;
    eventfd_write(done->descriptor(), 1);
  });
  EXPECT_TRUE(Mox::runUntil([&] { return sent.load(); }, 60.0));
  sender.join();
  ASSERT_EQ(report, "sent");
  // Everything sent is now queued on the socket or dropped; take what is queued.
  counter.onReadableCount();
  const long long drops = SocketTest::kernelCounter(*ns_, "Udp", "RcvbufErrors") - dropsBefore;
  EXPECT_EQ(counter.received + drops, kSent)
      << counter.received << " received, " << drops << " dropped";
  EXPECT_EQ(pam->rxPkts(), Mox::U64(counter.received));
}

TEST_F(Pressure, OutOfDescriptorsSetUpFailsAtTheSocketStepAndRecovers) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizers' own checks open descriptors (UndefinedBehaviorSanitizer's type check
  // probes memory through a pipe), so they cannot run in a process that has none left.
  GTEST_SKIP() << "the sanitizers need descriptors of their own";
#endif
  const int descriptors = SocketTest::openDescriptorCount();
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  const int lowestFree = dup(0);
  ASSERT_GE(lowestFree, 0);
  close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = lowestFree;  // no new descriptor at all
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  Ptr<UdpPam> pam;
  try {
    pam = server("starved");
    ADD_FAILURE() << "set-up should fail without descriptors";
  } catch (const Mox::ErrnoException& error) {
    EXPECT_STREQ(error.what(), "socket");
    EXPECT_EQ(error.errorNumber(), EMFILE);
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
  pam = server("fed");
  EXPECT_TRUE(pam->fileDesc());
}

TEST_F(Pressure, AtThePacketLimitADatagramIsDroppedCountedAndTraced) {
  Ptr<UdpPam> pam = server("limited");
  Counter counter(pam.get());
  Ptr<UdpPam> client = Korva::udpPamFactory("sender");
  client->netNsIs(Korva::NamespaceName(ns_->name()));
  client->txDstIpAddrIs(IpAddr(127, 0, 0, 1));
  client->txPortIs(kPort);
  client->modeIs(Mode::client);
  // Made before the limit, which counts only packets made under it.
  Ptr<Korva::Pkt> lost = SocketTest::packetOf("lost"), kept = SocketTest::packetOf("kept");
  Korva::Pkt::Manager* manager = Korva::globalPktManager();
  struct Unlimited {
    ~Unlimited() { Korva::globalPktManager()->pktLimitIs(0); }
  } unlimited;
  manager->pktLimitIs(1);
  Ptr<Korva::Pkt> held = manager->newPkt();
  ASSERT_TRUE(held);
  EXPECT_FALSE(manager->newPkt());

  Mox::TraceCapture capture;
  Mox::traceConfigIs("UdpPam/0");
  client->txPktIs(lost);
  EXPECT_TRUE(Mox::runUntil([&] { return pam->rxErrors() == 1; }, 5.0));
  Mox::traceConfigIs("");
  EXPECT_TRUE(capture.contains("Failed to obtain new packet object"));
  EXPECT_EQ(counter.received, 0);

  held = nullptr;
  client->txPktIs(kept);
  EXPECT_TRUE(Mox::runUntil([&] { return counter.received == 1; }, 5.0));
  EXPECT_EQ(pam->rxErrors(), 1u);
}

TEST_F(Pressure, PamsOutliveTheirNamespaceAndLeaveNothingBehind) {
  const std::string missing = ns_->name() + "-missing";
  Korva::socketAt(AF_INET, SOCK_DGRAM, 0, missing);  // ends workers earlier tests left
  const int descriptors = SocketTest::openDescriptorCount();
  const size_t threads = SocketTest::threadCount();
  {
    SocketTest::ScopedNs doomed("doomed");
    ASSERT_TRUE(doomed.created());
    Ptr<UdpPam> pams[2] = {Korva::udpPamFactory("a"), Korva::udpPamFactory("b")};
    for (const Ptr<UdpPam>& pam : pams) {
      pam->netNsIs(Korva::NamespaceName(doomed.name()));
      pam->modeIs(Mode::client);
      ASSERT_TRUE(pam->fileDesc());
    }
    ASSERT_EQ(std::system(("ip netns del " + doomed.name()).c_str()), 0);
    for (const Ptr<UdpPam>& pam : pams) {
      pam->modeIs(Mode::disabled);
      EXPECT_FALSE(pam->fileDesc());
    }
    EXPECT_THROW(pams[0]->modeIs(Mode::client), Mox::ErrnoException);
    EXPECT_FALSE(pams[0]->fileDesc());
  }
  Korva::socketAt(AF_INET, SOCK_DGRAM, 0, missing);
  EXPECT_EQ(SocketTest::openDescriptorCount(), descriptors);
  EXPECT_EQ(SocketTest::threadCount(), threads);
}

}  // namespace
