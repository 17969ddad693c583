#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <time.h>

#include <utility>

namespace {

double kernelMonotonic() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec + now.tv_nsec * 1e-9;
}

TEST(Time, RealTimeIsTheKernelMonotonicClock) {
  const double before = kernelMonotonic();
  const double now = Mox::now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, kernelMonotonic());
}

// Virtual time moves only forward and exactly; monotonicNow() and the end of virtual time
// give real time.
TEST(Time, VirtualTimeMovesOnlyForwardAndExactly) {
  {
    Mox::VirtualTime time(1e9);
    EXPECT_EQ(Mox::VirtualTime::current(), &time);
    EXPECT_EQ(Mox::now(), 1e9);
    time.advance(4.0);
    EXPECT_EQ(Mox::now(), time.start() + 4.0);
    time.timeIs(2e9);
    EXPECT_EQ(Mox::now(), 2e9);
    EXPECT_LT(Mox::monotonicNow(), 2e9);
    time.timeIs(10.0);
    time.advance(-1.0);
    EXPECT_EQ(Mox::now(), 2e9);
  }
  EXPECT_EQ(Mox::VirtualTime::current(), nullptr);
  EXPECT_LT(Mox::now(), 2e9);
}

TEST(TimeBudget, UsedUpOnlyOnceMoreThanItsSecondsOfVirtualTimePassed) {
  Mox::VirtualTime time;
  const Mox::TimeBudget budget(1.0);
  for (const auto& [advance, usedUp] :
       {std::pair{0.0, false}, {0.5, false}, {0.5, false}, {1e-9, true}, {100.0, true}}) {
    time.advance(advance);
    EXPECT_EQ(budget.usedUp(), usedUp) << Mox::now() - time.start();
  }
}

// In real time the coarse clock decides most checks: it must never end a budget early, nor
// much late.
TEST(TimeBudget, RealTimeBudgetEndsWhenNowSaysSo) {
  constexpr double kSeconds = 0.02;
  const double before = Mox::now();
  const Mox::TimeBudget budget(kSeconds);
  while (!budget.usedUp() && Mox::now() - before < 2.0) {
  }
  const double elapsed = Mox::now() - before;
  EXPECT_GT(elapsed, kSeconds);
  EXPECT_LT(elapsed, 2.0);
}

TEST(TimeDeathTest, OnlyOneVirtualTimeAtOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Mox::VirtualTime time;
  EXPECT_DEATH(Mox::VirtualTime second, "Assertion \"virtualTime == nullptr\" failed");
}

}  // namespace
