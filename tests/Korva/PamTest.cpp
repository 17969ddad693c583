#include <Korva/Pam.h>
#include <Korva/PamFdSm.h>
#include <Korva/ReqResponsePamFdSm.h>
#include <Korva/SimpleTestPam.h>
#include <Mox/Activity.h>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SocketTestUtil.h"

#include <string>
#include <vector>

namespace {

using Mox::Ptr;
using SocketTest::packetOf;

// A Pam over one datagram socket: the smallest concrete Pam.
class SocketTestPam : public Korva::Pam {
 public:
  explicit SocketTestPam(int fd) : Pam("socketTestPam") {
    pamFd.fileDescIs(Mox::make<Mox::FileDescriptor>("socketTestPam", fd), this);
  }
  void doGetRxPkt() override {
    Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
    char buffer[256];
    ssize_t n = recv(pamFd.descriptor(), buffer, sizeof buffer, 0);
    if (n <= 0) return;
    pkt->stringValueIs(std::string(buffer, static_cast<size_t>(n)));
    rxPktHolderIs(pkt);
  }
  Korva::PamFd pamFd;
};

// Records the readiness hooks of a Pam in order.
struct Recorder : Korva::Pam::Notifiee {
  explicit Recorder(Korva::Pam* pam) { notifierIs(pam); }
  void onReadableCount() override { events.push_back("readable"); }
  void onWritableCount() override { events.push_back("writable"); }
  std::vector<std::string> events;
};

TEST(PamDeathTest, BaseReceiveHookAborts) {
  struct BarePam : Korva::Pam {
    BarePam() : Pam("bare") {}
  };
  Ptr<BarePam> pam(new BarePam);
  EXPECT_DEATH(pam->rxPkt(),
               "Assertion \"0 && \"Need to implement doGetRxPkt in a derived class\"\" failed in "
               "Korva/Pam.cpp");
}

TEST(PamFdSm, CreationPollsOnceReadableFirstEvenWithoutDescriptor) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  Recorder recorder(pam.get());
  Ptr<Korva::PamFdSm> fdSm = Korva::PamFdSmIs(Mox::ActivityConfig::current(), nullptr, pam.get());
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"readable", "writable"}));
  EXPECT_EQ(fdSm->fileDesc(), nullptr);
}

TEST(PamFdSm, ReadinessBecomesCountsAndAReactorReadsPackets) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  Ptr<SocketTestPam> pam(new SocketTestPam(pair[0]));
  struct Reader : Korva::Pam::Notifiee {
    void onReadableCount() override {
      // Reads until empty, as agents that drain a Pam do.
      while (Ptr<Korva::Pkt> pkt = notifier()->rxPkt()) received.push_back(pkt->stringValue());
    }
    std::vector<std::string> received;
  } reader;
  reader.notifierIs(pam.get());
  ASSERT_EQ(send(pair[1], "one", 3, 0), 3);
  ASSERT_EQ(send(pair[1], "two", 3, 0), 3);
  EXPECT_TRUE(Mox::runUntil([&] { return reader.received.size() == 2; }, 5.0));
  EXPECT_EQ(reader.received, (std::vector<std::string>{"one", "two"}));

  // Without its reactor the Pam hears nothing more from the descriptor.
  const Mox::U32 before = pam->readableCount();
  pam->pamFd.fdSm()->fileDescDel();
  ASSERT_EQ(send(pair[1], "three", 5, 0), 5);
  Mox::runOnce();
  EXPECT_EQ(pam->readableCount(), before);
  close(pair[1]);
}

class RequestPam : public Korva::ReqResponseRawTxPam {
 public:
  RequestPam() : ReqResponseRawTxPam("request") {}
};

TEST(ReqResponsePamFdSm, ReportsWritableOncePerRequest) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
  Ptr<RequestPam> pam(new RequestPam);
  pam->fileDescIs(Mox::make<Mox::FileDescriptor>("request", pair[0]));
  pam->fileDesc()->notifyOnReadableIs(false);
  Ptr<Korva::ReqResponsePamFdSm> fdSm =
      Korva::ReqResponsePamFdSmIs(Mox::ActivityConfig::current(), pam->fileDesc(), pam.get());
  const Mox::U32 start = pam->writableCount();
  for (int request = 1; request <= 2; ++request) {
    pam->fileDesc()->notifyOnWritableIs(true);
    EXPECT_TRUE(Mox::runUntil([&] { return pam->writableCount() == start + request; }, 5.0));
    EXPECT_FALSE(pam->fileDesc()->notifyOnWritable());
    Mox::runOnce();
    EXPECT_EQ(pam->writableCount(), start + request) << "one report per request";
  }
  fdSm = nullptr;
  close(pair[1]);
}

TEST(ReqResponsePamFdSmDeathTest, NeedsARequestResponsePam) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  Ptr<Korva::ReqResponsePamFdSm> fdSm =
      Korva::ReqResponsePamFdSmIs(Mox::ActivityConfig::current(), nullptr, pam.get());
  EXPECT_DEATH(fdSm->handleWritable(), "Assertion \"reqResponsePam\" failed");
}

TEST(SimpleTestPam, CountsSentPacketsPerInterface) {
  Ptr<Korva::SimpleTestPam> pam = Korva::simpleTestPamFactory();
  pam->txPktIs(nullptr);
  EXPECT_EQ(pam->txPktCount(), 0u);
  pam->txPktIs(packetOf("a"));
  pam->txIfIndexIs(7);
  pam->txPktIs(packetOf("b"));
  pam->txPktIs(packetOf("c"));
  EXPECT_EQ(pam->txPktCount(), 3u);
  EXPECT_EQ(pam->txPktCounterColl(7), 2u);
  EXPECT_EQ(pam->txPktCounterCollSize(), 1u);
  EXPECT_EQ(pam->txPkt()->stringValue(), "c");
}

TEST(SimpleTestPam, DelaySplitsIntoSecondsAndRoundedUpNanoseconds) {
  timespec delay = Korva::rxPktDelayTimespec(1.5);
  EXPECT_EQ(delay.tv_sec, 1);
  EXPECT_EQ(delay.tv_nsec, 500000000);
  delay = Korva::rxPktDelayTimespec(2.0000000001);
  EXPECT_EQ(delay.tv_sec, 2);
  EXPECT_EQ(delay.tv_nsec, 1);
  delay = Korva::rxPktDelayTimespec(0.99999999999);
  EXPECT_EQ(delay.tv_nsec, 999999999);
}

}  // namespace
