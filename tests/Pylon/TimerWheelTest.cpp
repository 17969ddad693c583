#include <Mox/Activity.h>
#include <Mox/Time.h>
#include <Pylon/TimerWheel.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "BoundedRun.h"

namespace {

using Mox::kNever;
using Mox::Ptr;
using Pylon::TimerWheel;

// Records (id, time) of every expiry into a shared log.
struct LoggingTimer : TimerWheel::Timer {
  LoggingTimer(const Ptr<TimerWheel>& wheel, int id, std::vector<std::pair<int, double>>& log)
      : id(id), log(log) {
    notifierIs(wheel);
  }
  void onExpiry() override {
    log.emplace_back(id, Mox::now());
    if (action) action();
  }
  int id;
  std::vector<std::pair<int, double>>& log;
  std::function<void()> action;
};

class TimerWheelTest : public ::testing::Test {
 protected:
  std::unique_ptr<LoggingTimer> timer(int id) {
    return std::make_unique<LoggingTimer>(wheel_, id, log_);
  }
  bool runUntilLogHas(size_t count, double timeout = 3600.0) {
    return runUntilBounded([&] { return log_.size() >= count; }, timeout);
  }
  double at(double offset) const { return time_.start() + offset; }

  Mox::VirtualTime time_;
  Ptr<TimerWheel> wheel_ = Mox::make<TimerWheel>("wheel");
  std::vector<std::pair<int, double>> log_;
};

using Log = std::vector<std::pair<int, double>>;

// Thousands of timers at random (exactly representable) times, every other one stopped
// again: the rest expire in order at their exact times; equal expiries go in the order
// they were set, which here is id order.
TEST_F(TimerWheelTest, RandomTimersExpireInOrderAtTheirExactTimes) {
  std::mt19937 random(4242);
  std::vector<std::unique_ptr<LoggingTimer>> timers;
  Log expected;
  for (int id = 0; id < 6000; ++id) {
    timers.push_back(timer(id));
    const double expiry = at(double(random() % 100000) / 64.0);
    timers.back()->expiryIs(expiry);
    if (id % 2) {
      timers.back()->expiryIs(kNever);
    } else {
      expected.emplace_back(id, expiry);
    }
  }
  EXPECT_EQ(wheel_->runningTimerCount(), expected.size());
  std::stable_sort(expected.begin(), expected.end(),
                   [](const auto& a, const auto& b) { return a.second < b.second; });
  EXPECT_EQ(wheel_->nextExpiry(), expected.front().second);
  EXPECT_TRUE(runUntilLogHas(expected.size()));
  EXPECT_FALSE(runUntilLogHas(expected.size() + 1, 2000.0));
  EXPECT_EQ(log_, expected);
  EXPECT_EQ(wheel_->runningTimerCount(), 0u);
}

// Re-arming moves the wheel's clock both ways; the timer expires once, exactly, and then
// neither it nor the clock is armed.
TEST_F(TimerWheelTest, ReArmingMovesTheExpiryBothWays) {
  auto t = timer(1);
  t->expiryIs(at(4.0));
  EXPECT_TRUE(t->running());
  t->expiryIs(at(2.0));
  EXPECT_EQ(wheel_->clock()->minimumTime(), at(2.0));
  t->expiryIs(at(6.0));
  EXPECT_EQ(wheel_->clock()->minimumTime(), at(6.0));
  EXPECT_FALSE(runUntilLogHas(2, 10.0));
  EXPECT_EQ(log_, (Log{{1, at(6.0)}}));
  EXPECT_FALSE(t->running());
  EXPECT_EQ(t->expiry(), kNever);
  EXPECT_FALSE(wheel_->clock()->armed());
}

TEST_F(TimerWheelTest, PeriodicTimerReArmsFromItsExpiry) {
  auto t = timer(1);
  t->action = [&] { t->expiryIs(t->log.back().second + 1.5); };
  t->expiryIs(at(1.5));
  EXPECT_TRUE(runUntilLogHas(3));
  EXPECT_EQ(log_, (Log{{1, at(1.5)}, {1, at(3.0)}, {1, at(4.5)}}));
}

TEST_F(TimerWheelTest, TimerReArmedForNowExpiresOnTheNextTurn) {
  auto& manager = *Mox::ActivityManagerConfig::current();
  auto t = timer(1);
  t->action = [&] { t->expiryIs(Mox::now()); };
  t->expiryIs(at(1.0));
  EXPECT_TRUE(runUntilLogHas(1));
  const Mox::U64 turns = manager.turns();
  Mox::runOnce();
  Mox::runOnce();
  EXPECT_EQ(log_.size(), 3u);
  EXPECT_EQ(manager.turns(), turns + 2);
  t->action = nullptr;
}

TEST_F(TimerWheelTest, TimerStoppedByAnEarlierExpiryOfTheSameTurnDoesNotExpire) {
  auto first = timer(1), second = timer(2);
  first->action = [&] { second->expiryIs(kNever); };
  first->expiryIs(at(1.0));
  second->expiryIs(at(1.0));
  EXPECT_FALSE(runUntilLogHas(2, 5.0));
  EXPECT_EQ(log_, (Log{{1, at(1.0)}}));
}

TEST_F(TimerWheelTest, DestroyingATimerOrMovingItToAnotherWheelStopsIt) {
  auto doomed = timer(1), moved = timer(2);
  doomed->expiryIs(at(1.0));
  moved->expiryIs(at(1.0));
  EXPECT_EQ(wheel_->runningTimerCount(), 2u);
  doomed.reset();
  moved->notifierIs(Mox::make<TimerWheel>("other"));
  EXPECT_FALSE(moved->running());
  EXPECT_EQ(wheel_->runningTimerCount(), 0u);
  EXPECT_FALSE(wheel_->clock()->armed());
  EXPECT_FALSE(runUntilLogHas(1, 5.0));
}

TEST_F(TimerWheelTest, WheelOverASharedClockArmsIt) {
  auto clock = Mox::make<Mox::Clock>("shared");
  auto wheel = Mox::make<TimerWheel>("onShared", clock);
  EXPECT_EQ(wheel->clock(), clock);
  LoggingTimer t(wheel, 7, log_);
  t.expiryIs(at(0.5));
  EXPECT_EQ(clock->minimumTime(), at(0.5));
  EXPECT_TRUE(runUntilLogHas(1));
  EXPECT_EQ(log_, (Log{{7, at(0.5)}}));
}

TEST(TimerWheelDeathTest, ArmingATimerWithoutAWheelAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TimerWheel::Timer orphan;
  EXPECT_DEATH(orphan.expiryIs(1.0), "Assertion \"wheel != nullptr\" failed");
}

}  // namespace
