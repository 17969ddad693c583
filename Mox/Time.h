#pragma once
// Time as the runtime sees it: monotonic seconds as a double. Every clock, timer and
// deadline reads it through now(), which is the one seam where tests put virtual time in.
//
//   Mox::VirtualTime time;               // now() stands still at time.time()
//   timer.expiryIs(Mox::now() + 4.0);
//   Mox::runUntil([&] { return fired; }, 10.0);  // jumps straight to the expiry
//   EXPECT_EQ(Mox::now(), time.start() + 4.0);

#include <Mox/Types.h>

#include <limits>

namespace Mox {

// "Never": the deadline of a disarmed clock or a stopped timer.
inline constexpr double kNever = std::numeric_limits<double>::infinity();

// Monotonic seconds (CLOCK_MONOTONIC), or the virtual time while a VirtualTime exists.
double now() noexcept;
// The kernel's monotonic clock even under virtual time. Only for bounding how long a
// test or tool really waits; everything else reads now().
double monotonicNow() noexcept;

// Whether more than `seconds` of now() have passed since it was made: a budget checked
// after every item of a burst. The answer is always now()'s, but in real time now() is read
// only once the kernel's coarse clock, which costs a fraction as much and is behind now() by
// at most about a tick, says the budget may be up.
//
//   const Mox::TimeBudget budget(1.0);
//   while (work()) if (budget.usedUp()) return reschedule();
class TimeBudget {
 public:
  explicit TimeBudget(double seconds) noexcept;
  bool usedUp() const noexcept;

 private:
  double start_;
  double seconds_;
  // Up to this coarse-clock reading, in nanoseconds, the budget cannot be up: compared as
  // an integer, since converting the reading to seconds would cost as much as the check.
  S64 coarseLimit_;
};

// While one exists, now() returns its time, which moves only when the test (or the event
// loop, when it would otherwise wait for a deadline) moves it. One at a time per process.
class VirtualTime {
 public:
  // Starts away from zero so that code mixing absolute and relative times shows it.
  static constexpr double kDefaultStart = 1000.0;

  explicit VirtualTime(double start = kDefaultStart);
  ~VirtualTime();
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  double start() const noexcept { return start_; }
  double time() const noexcept { return time_; }
  // Time never runs backwards: an earlier time is ignored.
  void timeIs(double time) noexcept;
  void advance(double seconds) noexcept { timeIs(time_ + seconds); }

  // The virtual time in force, or null when now() reads the real clock.
  static VirtualTime* current() noexcept;

 private:
  double start_;
  double time_;
};

}  // namespace Mox
