#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <time.h>

namespace {

TEST(Time, RealTimeIsMonotonicAndMatchesTheKernelClock) {
  timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  double previous = Mox::now();
  for (int i = 0; i < 1000; ++i) {
    const double current = Mox::now();
    ASSERT_GE(current, previous);
    previous = current;
  }
  timespec after;
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE(previous, before.tv_sec + before.tv_nsec * 1e-9);
  EXPECT_LE(previous, after.tv_sec + after.tv_nsec * 1e-9);
}

TEST(Time, VirtualTimeStandsStillAndMovesExactly) {
  Mox::VirtualTime time;
  EXPECT_EQ(Mox::VirtualTime::current(), &time);
  EXPECT_EQ(Mox::now(), Mox::VirtualTime::kDefaultStart);
  EXPECT_EQ(Mox::now(), Mox::now());
  time.advance(4.0);
  EXPECT_EQ(Mox::now(), time.start() + 4.0);
  time.timeIs(2000.25);
  EXPECT_EQ(Mox::now(), 2000.25);
}

TEST(Time, VirtualTimeNeverRunsBackwards) {
  Mox::VirtualTime time(50.0);
  time.timeIs(10.0);
  time.advance(-1.0);
  EXPECT_EQ(Mox::now(), 50.0);
}

TEST(Time, RealTimeReturnsWhenVirtualTimeEnds) {
  { Mox::VirtualTime time(1e9); }
  EXPECT_EQ(Mox::VirtualTime::current(), nullptr);
  EXPECT_LT(Mox::now(), 1e9);
}

TEST(Time, MonotonicNowIgnoresVirtualTime) {
  Mox::VirtualTime time(1e9);
  const double real = Mox::monotonicNow();
  EXPECT_LT(real, 1e9);
  EXPECT_GE(Mox::monotonicNow(), real);
  EXPECT_EQ(Mox::now(), 1e9);
}

TEST(TimeDeathTest, OnlyOneVirtualTimeAtOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Mox::VirtualTime time;
  EXPECT_DEATH(Mox::VirtualTime second, "Assertion \"virtualTime == nullptr\" failed");
}

}  // namespace
