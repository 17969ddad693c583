#include <Mox/Assert.h>
#include <Mox/Trace.h>
#include <Pylon/TimerWheel.h>

#include <cmath>

namespace Pylon {

namespace {

Mox::TraceHandle trace("TimerWheel");

}  // namespace

// --- TimerWheel ---

TimerWheel::TimerWheel(Mox::Name name)
    : TimerWheel(name, Mox::make<Mox::Clock>(name + "::clock")) {}

TimerWheel::TimerWheel(Mox::Name name, Mox::Ptr<Mox::Clock> clock)
    : Entity(std::move(name)), clockReactor_(*this, std::move(clock)) {}

// Timers hold a reference to their wheel, so none is left when it goes.
TimerWheel::~TimerWheel() = default;

void TimerWheel::expiryIs(Timer& timer, double expiry) {
  MOX_ASSERT(!std::isnan(expiry));
  timers_.schedule(&timer.schedule_, expiry);
  clockUpdate();
}

void TimerWheel::expireDue() {
  const double time = Mox::now();
  // Timers armed from an onExpiry wait for the next turn, even when already due, so a
  // timer that keeps re-arming itself for "now" cannot hold the loop here.
  const Mox::U64 firstArmedDuringThisRound = timers_.nextSequence();
  Mox::Ptr<TimerWheel> keepAlive(this);
  while (Mox::DeadlineHeap::Entry* next = timers_.top()) {
    if (next->deadline > time || next->sequence >= firstArmedDuringThisRound) break;
    Timer* timer = static_cast<Timer::Schedule*>(next)->timer;
    MOX_TRACE(trace, 9, name() << ": timer expires at " << next->deadline);
    timers_.remove(next);
    timer->onExpiry();
  }
  clockUpdate();
}

void TimerWheel::clockUpdate() {
  clock()->minimumTimeIs(timers_.earliest());
}

TimerWheel::ClockReactor::ClockReactor(TimerWheel& wheel, Mox::Ptr<Mox::Clock> clock)
    : wheel_(wheel), clock_(std::move(clock)) {
  notifierIs(clock_);
}

TimerWheel::ClockReactor::~ClockReactor() {
  clock_->minimumTimeIs(Mox::kNever);
  notifierIs(nullptr);
}

// --- TimerWheel::Timer ---

TimerWheel::Timer::~Timer() {
  notifierIs(nullptr);
}

void TimerWheel::Timer::notifierIs(const Mox::Ptr<TimerWheel>& wheel) {
  if (wheel.get() == notifier()) return;
  if (TimerWheel* previous = notifier()) previous->expiryIs(*this, Mox::kNever);
  notifierBaseIs(wheel.get());
}

void TimerWheel::Timer::expiryIs(double expiry) {
  TimerWheel* wheel = notifier();
  MOX_ASSERT(wheel != nullptr);
  wheel->expiryIs(*this, expiry);
}

}  // namespace Pylon
