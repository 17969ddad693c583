#pragma once
// Many timers over one Mox::Clock. A timer is a notifiee of its wheel with an absolute
// expiry in Mox::now() seconds (kNever, +infinity, means stopped); the wheel keeps its
// clock armed at the earliest expiry, and when that comes it stops each due timer and
// calls its onExpiry(), earliest first (equal expiries in the order they were set).
// Arming, re-arming and stopping are O(log n), so thousands of timers cost little.
//
//   struct Retry : Pylon::TimerWheel::Timer {
//     void onExpiry() override { reconnect(); }
//   } retry;
//   retry.notifierIs(wheel);
//   retry.expiryIs(Mox::now() + 4.0);   // and expiryIs(Mox::kNever) to stop it

#include <Mox/Clock.h>
#include <Mox/DeadlineHeap.h>
#include <Mox/Entity.h>
#include <Mox/Ptr.h>
#include <Mox/Time.h>

#include <vector>

namespace Pylon {

class TimerWheel : public Mox::Entity {
 public:
  class Timer;

  // A wheel over a clock of its own on this thread's event loop.
  explicit TimerWheel(Mox::Name name);
  // A wheel over the given clock; the wheel sets its minimum time.
  TimerWheel(Mox::Name name, Mox::Ptr<Mox::Clock> clock);
  ~TimerWheel() override;

  const Mox::Ptr<Mox::Clock>& clock() const noexcept { return clockReactor_.clock(); }
  size_t runningTimerCount() const noexcept { return timers_.size(); }
  double nextExpiry() const noexcept { return timers_.earliest(); }

 private:
  // Watches the clock for the wheel.
  class ClockReactor : public Mox::Clock::Notifiee {
   public:
    ClockReactor(TimerWheel& wheel, Mox::Ptr<Mox::Clock> clock);
    ~ClockReactor() override;
    const Mox::Ptr<Mox::Clock>& clock() const noexcept { return clock_; }
    void onTime() override { wheel_.expireDue(); }

   private:
    TimerWheel& wheel_;
    Mox::Ptr<Mox::Clock> clock_;
  };

  void expiryIs(Timer& timer, double expiry);
  void expireDue();
  void clockUpdate();

  ClockReactor clockReactor_;
  Mox::DeadlineHeap timers_;
};

class TimerWheel::Timer : public Mox::Entity::NotifieeBase {
 public:
  Timer() { schedule_.timer = this; }
  ~Timer() override;

  TimerWheel* notifier() const noexcept {
    return static_cast<TimerWheel*>(const_cast<Mox::Entity*>(notifierBase()));
  }
  // Moving a timer to another wheel (or to none) stops it.
  void notifierIs(const Mox::Ptr<TimerWheel>& wheel);

  double expiry() const noexcept { return schedule_.deadline; }
  // Arms the timer for an absolute time; kNever stops it. The timer must have a wheel.
  void expiryIs(double expiry);
  bool running() const noexcept { return expiry() != Mox::kNever; }

  // The timer has expired and is stopped; it may arm itself again from here.
  virtual void onExpiry() {}

 private:
  friend class TimerWheel;
  struct Schedule : Mox::DeadlineHeap::Entry {
    Timer* timer = nullptr;
  };
  Schedule schedule_;
};

}  // namespace Pylon
