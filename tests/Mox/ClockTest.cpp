#include <Mox/Activity.h>
#include <Mox/Clock.h>
#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Mox::Clock;
using Mox::kNever;
using Mox::Ptr;

struct Watcher : Clock::Notifiee {
  explicit Watcher(const Ptr<Clock>& clock) { notifierIs(clock); }
  void onTime() override {
    times.push_back(Mox::now());
    if (action) action();
  }
  std::vector<double> times;
  std::function<void()> action;
};

class ClockTest : public ::testing::Test {
 protected:
  Mox::VirtualTime time_;
  Mox::ActivityManagerConfig& manager_ = *Mox::ActivityManagerConfig::current();
};

TEST_F(ClockTest, StartsDisarmedAndNeverFires) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  EXPECT_EQ(clock->minimumTime(), kNever);
  EXPECT_FALSE(clock->armed());
  EXPECT_FALSE(Mox::runUntil([&] { return !watcher.times.empty(); }, 3600.0));
  EXPECT_EQ(clock->time(), 0.0);
}

TEST_F(ClockTest, ArmedAtZeroFiresOnTheNextTurnAndEveryTurnUntilDisarmed) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  clock->minimumTimeIs(0.0);
  EXPECT_TRUE(watcher.times.empty());
  Mox::runOnce();
  Mox::runOnce();
  Mox::runOnce();
  EXPECT_EQ(watcher.times.size(), 3u);
  EXPECT_EQ(clock->time(), time_.start());
  clock->minimumTimeIs(kNever);
  Mox::runOnce();
  EXPECT_EQ(watcher.times.size(), 3u);
}

TEST_F(ClockTest, ReactorThatDisarmsHearsItOnce) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  watcher.action = [&] { clock->minimumTimeIs(kNever); };
  clock->minimumTimeIs(0.0);
  for (int i = 0; i < 3; ++i) Mox::runOnce();
  EXPECT_EQ(watcher.times.size(), 1u);
  EXPECT_EQ(manager_.armedClockCount(), 0u);
}

TEST_F(ClockTest, FourSecondWakeUpIsExactInVirtualTime) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  watcher.action = [&] { clock->minimumTimeIs(kNever); };
  clock->minimumTimeIs(Mox::now() + 4.0);
  EXPECT_TRUE(Mox::runUntil([&] { return !watcher.times.empty(); }, 10.0));
  EXPECT_EQ(Mox::now(), time_.start() + 4.0);
  EXPECT_EQ(clock->time(), time_.start() + 4.0);
  EXPECT_EQ(watcher.times, std::vector<double>{time_.start() + 4.0});
}

TEST_F(ClockTest, RunUntilStopsAtItsOwnTimeoutBeforeALaterDeadline) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  clock->minimumTimeIs(Mox::now() + 20.0);
  EXPECT_FALSE(Mox::runUntil([&] { return !watcher.times.empty(); }, 10.0));
  EXPECT_EQ(Mox::now(), time_.start() + 10.0);
  EXPECT_TRUE(Mox::runUntil([&] { return !watcher.times.empty(); }, 10.0));
  EXPECT_EQ(Mox::now(), time_.start() + 20.0);
}

TEST_F(ClockTest, ClocksFireInDeadlineOrderAtTheirOwnTimes) {
  std::vector<std::string> order;
  std::vector<Ptr<Clock>> clocks;
  std::vector<std::unique_ptr<Watcher>> watchers;
  for (double offset : {3.0, 1.0, 2.0, 1.0}) {
    clocks.push_back(Mox::make<Clock>("clock" + std::to_string(clocks.size())));
    auto& clock = clocks.back();
    watchers.push_back(std::make_unique<Watcher>(clock));
    watchers.back()->action = [&order, clock] {
      order.push_back(clock->name() + "@" +
                      std::to_string(int(Mox::now() - Mox::VirtualTime::kDefaultStart)));
      clock->minimumTimeIs(kNever);
    };
    clock->minimumTimeIs(Mox::now() + offset);
  }
  EXPECT_TRUE(Mox::runUntil([&] { return order.size() == 4; }, 10.0));
  EXPECT_EQ(order, (std::vector<std::string>{"clock1@1", "clock3@1", "clock2@2", "clock0@3"}));
}

TEST_F(ClockTest, ReactorDisarmingAClockDueInTheSameTurnPreventsIt) {
  auto first = Mox::make<Clock>("first");
  auto second = Mox::make<Clock>("second");
  Watcher onFirst(first), onSecond(second);
  onFirst.action = [&] {
    first->minimumTimeIs(kNever);
    second->minimumTimeIs(kNever);
  };
  first->minimumTimeIs(Mox::now() + 1.0);
  second->minimumTimeIs(Mox::now() + 1.0);
  Mox::runUntil([&] { return false; }, 5.0);
  EXPECT_EQ(onFirst.times.size(), 1u);
  EXPECT_TRUE(onSecond.times.empty());
}

TEST_F(ClockTest, ReArmingLaterMovesTheWakeUp) {
  auto clock = Mox::make<Clock>("clock");
  Watcher watcher(clock);
  watcher.action = [&] { clock->minimumTimeIs(kNever); };
  clock->minimumTimeIs(Mox::now() + 1.0);
  clock->minimumTimeIs(Mox::now() + 7.5);
  EXPECT_TRUE(Mox::runUntil([&] { return !watcher.times.empty(); }, 10.0));
  EXPECT_EQ(watcher.times, std::vector<double>{time_.start() + 7.5});
}

TEST_F(ClockTest, DestroyedArmedClockLeavesTheLoop) {
  const size_t before = manager_.armedClockCount();
  auto clock = Mox::make<Clock>("clock");
  clock->minimumTimeIs(Mox::now() + 1.0);
  EXPECT_EQ(manager_.armedClockCount(), before + 1);
  clock = nullptr;
  EXPECT_EQ(manager_.armedClockCount(), before);
  Mox::runUntil([] { return false; }, 2.0);
}

TEST_F(ClockTest, ActivityClockFiresLikeAnyOther) {
  const Ptr<Clock>& clock = Mox::ActivityConfig::current()->clock();
  EXPECT_EQ(clock, manager_.clock());
  Watcher watcher(clock);
  watcher.action = [&] { clock->minimumTimeIs(kNever); };
  clock->minimumTimeIs(0.0);
  Mox::runOnce();
  EXPECT_EQ(watcher.times.size(), 1u);
}

TEST(ClockDeathTest, NotANumberIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto clock = Mox::make<Clock>("clock");
  EXPECT_DEATH(clock->minimumTimeIs(std::nan("")), "Assertion \"!std::isnan\\(time\\)\" failed");
}

}  // namespace
