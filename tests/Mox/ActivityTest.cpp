#include <Mox/Activity.h>
#include <Mox/Clock.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using Mox::ActivityConfig;
using Mox::ActivityManagerConfig;
using Mox::Clock;
using Mox::Ptr;

struct OnTime : Mox::Clock::Notifiee {
  template <class Fn>
  OnTime(const Ptr<Mox::Clock>& clock, Fn fn) : action(fn) {
    notifierIs(clock);
  }
  void onTime() override { action(); }
  std::function<void()> action;
};

// A pipe whose read end the loop watches; the test writes to the other end.
struct Pipe {
  Pipe() {
    EXPECT_EQ(pipe(fds), 0);
    readEnd = Mox::make<Mox::FileDescriptor>("pipe", fds[0]);
  }
  ~Pipe() { close(fds[1]); }
  void writeByte() { ASSERT_EQ(write(fds[1], "x", 1), 1); }
  bool readable() const { return readEnd->readableCount() > 0; }
  int fds[2];
  Ptr<Mox::FileDescriptor> readEnd;
};

TEST(Activity, EachThreadHasOneLoopAndOneDefaultActivity) {
  Ptr<ActivityManagerConfig> manager = ActivityManagerConfig::current();
  EXPECT_EQ(ActivityConfig::current(), ActivityConfig::current());
  EXPECT_EQ(ActivityConfig::current()->name(), "default");
  auto agent = Mox::make<ActivityConfig>("agent");
  EXPECT_EQ(agent->manager(), manager);
  EXPECT_EQ(agent->clock(), manager->clock());
  Ptr<ActivityManagerConfig> other;
  std::thread([&] { other = ActivityManagerConfig::current(); }).join();
  ASSERT_TRUE(other);
  EXPECT_NE(other, manager);
}

// An object that outlives its thread's loop (a static, say) may still hold the loop's clock.
// Caught by the sanitizer run: releasing it reached into the ended loop.
TEST(Activity, TheLoopsClockHeldPastTheLoopNoLongerReachesIt) {
  Ptr<Clock> clock;
  std::thread([&] {
    clock = ActivityManagerConfig::current()->clock();
    clock->minimumTimeIs(5.0);
  }).join();
  clock->minimumTimeIs(1.0);
  EXPECT_FALSE(clock->armed());
  clock = nullptr;
}

TEST(Activity, RunUntilChecksTheConditionFirstAndIsBoundedInRealTime) {
  auto& manager = *ActivityManagerConfig::current();
  const Mox::U64 turns = manager.turns();
  EXPECT_TRUE(Mox::runUntil([] { return true; }, 0.0));
  EXPECT_FALSE(Mox::runUntil([] { return false; }, 0.0));
  EXPECT_EQ(manager.turns(), turns);
  const double start = Mox::now();
  EXPECT_FALSE(Mox::runUntil([] { return false; }, 0.02));
  EXPECT_GE(Mox::now(), start + 0.02);
}

// Virtual time never waits in real time: an hour with nothing to do passes in one turn. A
// ready descriptor holds it back, so only a real-time bound ends such a run.
TEST(Activity, VirtualTimeNeverWaitsInRealTime) {
  Mox::VirtualTime time;
  Pipe p;
  auto& manager = *ActivityManagerConfig::current();
  const Mox::U64 turns = manager.turns();
  EXPECT_FALSE(Mox::runUntil([&] { return p.readable(); }, 3600.0));
  EXPECT_EQ(manager.turns(), turns + 1);
  EXPECT_EQ(Mox::now(), time.start() + 3600.0);
  auto clock = Mox::make<Mox::Clock>("clock");
  int fired = 0;
  OnTime onTime(clock, [&] { ++fired; });
  clock->minimumTimeIs(Mox::now() + 5.0);
  p.writeByte();
  EXPECT_TRUE(Mox::runUntil([&] { return p.readable(); }, 3600.0));
  EXPECT_EQ(p.readEnd->readableCount(), 1u);
  // Never read, the level-triggered pipe is ready on every turn: virtual time never moves,
  // so the deadline never comes.
  EXPECT_FALSE(Mox::runUntil([] { return false; }, 0.02));
  EXPECT_GT(p.readEnd->readableCount(), 1u);
  EXPECT_EQ(fired, 0);
  EXPECT_EQ(Mox::now(), time.start() + 3600.0);
}

TEST(Activity, RunOnceReportsWhetherAnythingHappenedAndStopFromAReactorEndsRun) {
  Mox::VirtualTime time;
  auto manager = ActivityManagerConfig::current();
  auto clock = Mox::make<Mox::Clock>("clock");
  int ticks = 0;
  OnTime onTime(clock, [&] {
    if (++ticks == 3) manager->stop();
    clock->minimumTimeIs(Mox::now() + 1.0);
  });
  EXPECT_FALSE(Mox::runOnce());
  clock->minimumTimeIs(Mox::now() + 1.0);
  EXPECT_FALSE(Mox::runOnce());  // not due yet, and no time to wait
  EXPECT_TRUE(Mox::runOnce(1.0));
  EXPECT_EQ(Mox::now(), time.start() + 1.0);
  manager->run();
  EXPECT_EQ(ticks, 3);
  EXPECT_EQ(Mox::now(), time.start() + 3.0);
}

// True once thread `tid` of this process sits in epoll_wait (or epoll_pwait).
bool blockedInEpollWait(pid_t tid) {
  std::ifstream syscall("/proc/self/task/" + std::to_string(tid) + "/syscall");
  long number = -1;
  syscall >> number;
  return number == SYS_epoll_wait || number == SYS_epoll_pwait;
}

TEST(Activity, StopBeforeRunOrFromAnotherThreadEndsRun) {
  auto manager = ActivityManagerConfig::current();
  manager->stop();
  manager->run();  // returns at once
  const pid_t loopThread = gettid();
  bool sawBlocked = false;
  std::thread stopper([&] {
    const double giveUp = Mox::monotonicNow() + 10.0;
    while (!sawBlocked && Mox::monotonicNow() < giveUp) sawBlocked = blockedInEpollWait(loopThread);
    manager->stop();
  });
  // Nothing to wait for but the stop request itself.
  manager->run();
  stopper.join();
  EXPECT_TRUE(sawBlocked);
}

TEST(Activity, ReactorExceptionReachesTheCallerAndTheLoopGoesOn) {
  Mox::VirtualTime time;
  auto clock = Mox::make<Mox::Clock>("clock");
  int ticks = 0;
  OnTime onTime(clock, [&] {
    clock->minimumTimeIs(Mox::now() + 1.0);
    if (++ticks == 1) throw std::runtime_error("reactor failed");
  });
  clock->minimumTimeIs(0.0);
  EXPECT_THROW(Mox::runOnce(), std::runtime_error);
  EXPECT_TRUE(Mox::runUntil([&] { return ticks == 3; }, 10.0));
  EXPECT_EQ(Mox::now(), time.start() + 2.0);
}

TEST(ActivityDeathTest, ReenteringTheLoopFromAReactorAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto clock = Mox::make<Mox::Clock>("clock");
        OnTime onTime(clock, [] { Mox::runOnce(); });
        clock->minimumTimeIs(0.0);
        Mox::runOnce();
      },
      "Assertion \"event loop re-entered from a reactor\" failed");
}

}  // namespace
