#include <Mox/Activity.h>
#include <Mox/Clock.h>
#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BoundedRun.h"

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
  bool runUntilFired(size_t count, double timeout) {
    return runUntilBounded([&] { return watcher_.times.size() >= count; }, timeout);
  }

  Mox::VirtualTime time_;
  Mox::ActivityManagerConfig& manager_ = *Mox::ActivityManagerConfig::current();
  Ptr<Clock> clock_ = Mox::make<Clock>("clock");
  Watcher watcher_{clock_};
};

TEST_F(ClockTest, ArmedAtZeroFiresOnTheNextTurnAndEveryTurnUntilDisarmed) {
  EXPECT_FALSE(clock_->armed());
  EXPECT_FALSE(runUntilFired(1, 3600.0));
  clock_->minimumTimeIs(0.0);
  EXPECT_TRUE(watcher_.times.empty());
  for (int i = 0; i < 3; ++i) Mox::runOnce();
  EXPECT_EQ(watcher_.times.size(), 3u);
  EXPECT_EQ(clock_->time(), time_.start() + 3600.0);
  clock_->minimumTimeIs(kNever);
  Mox::runOnce();
  EXPECT_EQ(watcher_.times.size(), 3u);
}

// Re-arming later moves the wake-up; a run's own timeout before it ends the run first.
TEST_F(ClockTest, WakeUpIsExactInVirtualTime) {
  watcher_.action = [&] { clock_->minimumTimeIs(kNever); };
  clock_->minimumTimeIs(Mox::now() + 1.0);
  clock_->minimumTimeIs(Mox::now() + 20.0);
  EXPECT_FALSE(runUntilFired(1, 10.0));
  EXPECT_EQ(Mox::now(), time_.start() + 10.0);
  EXPECT_TRUE(runUntilFired(1, 10.0));
  EXPECT_EQ(Mox::now(), time_.start() + 20.0);
  EXPECT_EQ(clock_->time(), time_.start() + 20.0);
  EXPECT_FALSE(runUntilFired(2, 10.0));
  EXPECT_EQ(watcher_.times, std::vector<double>{time_.start() + 20.0});
  EXPECT_EQ(manager_.armedClockCount(), 0u);
}

// Clocks fire at their own times, equal deadlines in the order they were armed; a reactor
// that disarms a clock due in the same turn prevents it.
TEST_F(ClockTest, ClocksFireInDeadlineOrderAtTheirOwnTimes) {
  std::vector<std::string> order;
  std::vector<Ptr<Clock>> clocks;
  std::vector<std::unique_ptr<Watcher>> watchers;
  for (double offset : {3.0, 1.0, 2.0, 1.0, 1.0}) {
    clocks.push_back(Mox::make<Clock>("clock" + std::to_string(clocks.size())));
    auto& clock = clocks.back();
    watchers.push_back(std::make_unique<Watcher>(clock));
    watchers.back()->action = [&order, &clocks, clock] {
      order.push_back(clock->name() + "@" +
                      std::to_string(int(Mox::now() - Mox::VirtualTime::kDefaultStart)));
      clock->minimumTimeIs(kNever);
      if (clock == clocks[3]) clocks[4]->minimumTimeIs(kNever);
    };
    clock->minimumTimeIs(Mox::now() + offset);
  }
  EXPECT_FALSE(runUntilBounded([&] { return order.size() > 4; }, 10.0));
  EXPECT_EQ(order, (std::vector<std::string>{"clock1@1", "clock3@1", "clock2@2", "clock0@3"}));
}

TEST_F(ClockTest, DestroyedArmedClockLeavesTheLoop) {
  auto clock = Mox::make<Clock>("other");
  clock->minimumTimeIs(Mox::now() + 1.0);
  EXPECT_EQ(manager_.armedClockCount(), 1u);
  clock = nullptr;
  EXPECT_EQ(manager_.armedClockCount(), 0u);
  Mox::runUntil([] { return false; }, 2.0);
}

TEST(ClockDeathTest, NotANumberIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto clock = Mox::make<Clock>("clock");
  EXPECT_DEATH(clock->minimumTimeIs(std::nan("")), "Assertion \"!std::isnan\\(time\\)\" failed");
}

}  // namespace
