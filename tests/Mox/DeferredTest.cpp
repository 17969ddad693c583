#include <Mox/Activity.h>
#include <Mox/Deferred.h>
#include <Mox/Time.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Mox::Deferred;

class DeferredTest : public ::testing::Test {
 protected:
  // A Deferred that appends its name to the log of what ran.
  std::unique_ptr<Deferred> work(const std::string& name, std::function<void()> then = {}) {
    return std::make_unique<Deferred>([this, name, then] {
      ran_ += name;
      if (then) then();
    });
  }
  // One turn; returns what ran in it.
  std::string turn(double maxWaitSeconds = 0.0) {
    ran_.clear();
    Mox::runOnce(maxWaitSeconds);
    return ran_;
  }

  Mox::VirtualTime time_;
  std::string ran_;
};

TEST_F(DeferredTest, RunsOnTheNextTurnInScheduleOrder) {
  std::unique_ptr<Deferred> a, b, c, d;
  bool first = true;
  a = work("a", [&] {
    if (!first) return;
    first = false;
    a->schedule();  // itself and a newcomer wait for the turn after
    d->schedule();
    b->schedule();  // already queued for this turn: keeps its place
  });
  b = work("b");
  c = work("c");
  d = work("d");
  c->schedule();
  a->schedule();
  b->schedule();
  a->schedule();
  EXPECT_TRUE(c->scheduled());
  EXPECT_EQ(turn(), "cab");
  EXPECT_EQ(turn(), "ad");
  EXPECT_EQ(turn(), "");
  a->schedule();
  a->cancel();
  EXPECT_FALSE(a->scheduled());
  EXPECT_EQ(turn(), "");
}

TEST_F(DeferredTest, CancelledOrDestroyedWorkNeverRuns) {
  std::unique_ptr<Deferred> a, b, c, d;
  a = work("a", [&] {
    b->cancel();  // later in this very turn
    c.reset();
    a.reset();  // the work destroys its own Deferred
  });
  b = work("b");
  c = work("c");
  d = work("d");
  for (Deferred* deferred : {a.get(), b.get(), c.get(), d.get()}) deferred->schedule();
  d.reset();
  EXPECT_EQ(turn(), "a");
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(turn(), "");
}

TEST_F(DeferredTest, RunsAtTheTimeItWasScheduledAndTheLoopWaitsOnlyWhenNoneIsQueued) {
  auto clock = Mox::make<Mox::Clock>("later");
  const double start = Mox::now();
  clock->minimumTimeIs(start + 5.0);
  std::vector<double> times;
  Deferred again([&] {
    times.push_back(Mox::now());
    if (times.size() < 3) again.schedule();
  });
  again.schedule();
  const std::vector<double> after = {start, start, start + 5.0};  // now() after each turn
  for (double expected : after) {
    Mox::runOnce(10.0);
    EXPECT_EQ(Mox::now(), expected);
  }
  EXPECT_EQ(times, std::vector<double>(3, start));
  EXPECT_EQ(clock->time(), start + 5.0);
}

TEST_F(DeferredTest, AThrowingWorkLeavesTheRestQueuedInOrder) {
  std::unique_ptr<Deferred> a, b, c, d;
  a = work("a", [&] {
    d->schedule();
    throw std::runtime_error("a failed");
  });
  b = work("b");
  c = work("c");
  d = work("d");
  for (Deferred* deferred : {a.get(), b.get(), c.get()}) deferred->schedule();
  EXPECT_THROW(Mox::runOnce(), std::runtime_error);
  EXPECT_EQ(turn(), "bcd");
}

}  // namespace
