#pragma once
// A wake-up at an absolute time. A reactor arms the clock by setting its minimum time (in
// Mox::now() seconds) and is told onTime() on the first turn of the event loop at or after
// that time. The clock stays due, and fires again on every later turn, until a reactor
// re-arms it for a later time or disarms it with kNever (+infinity, the default). Arming
// it for 0.0 therefore means "on the next turn".
//
//   struct Retry : Mox::Clock::Notifiee {
//     void onTime() override { notifier()->minimumTimeIs(Mox::kNever); retry(); }
//   };
//   clock->minimumTimeIs(Mox::now() + 4.0);

#include <Mox/DeadlineHeap.h>
#include <Mox/Entity.h>
#include <Mox/Ptr.h>
#include <Mox/Time.h>

namespace Mox {

class ActivityManagerConfig;

class Clock : public Entity {
 public:
  class Notifiee;

  // A clock of this thread's event loop, disarmed.
  explicit Clock(Name name);
  ~Clock() override;

  double minimumTime() const noexcept { return schedule_.deadline; }
  void minimumTimeIs(double time);
  bool armed() const noexcept { return minimumTime() != kNever; }
  // When it last fired (0 before the first time).
  double time() const noexcept { return time_; }

 private:
  friend class ActivityManagerConfig;
  struct Schedule : DeadlineHeap::Entry {
    Clock* clock = nullptr;
  };

  // The event-loop manager's own clock, which must not keep its manager alive.
  Clock(Name name, ActivityManagerConfig* manager);
  void fire(double now);

  ActivityManagerConfig* manager_;  // null once the loop has ended
  Ptr<ActivityManagerConfig> managerReference_;
  Schedule schedule_;
  double time_ = 0.0;
};

class Clock::Notifiee : public Entity::NotifieeBase {
 public:
  Clock* notifier() const noexcept {
    return static_cast<Clock*>(const_cast<Entity*>(notifierBase()));
  }
  void notifierIs(const Ptr<Clock>& clock) { notifierBaseIs(clock.get()); }

  virtual void onTime() {}
};

}  // namespace Mox
