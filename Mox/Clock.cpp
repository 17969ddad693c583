#include <Mox/Activity.h>
#include <Mox/Assert.h>
#include <Mox/Clock.h>
#include <Mox/Trace.h>

#include <cmath>

namespace Mox {

namespace {

TraceHandle trace("Clock");

}  // namespace

Clock::Clock(Name name) : Entity(std::move(name)) {
  managerReference_ = ActivityManagerConfig::current();
  manager_ = managerReference_.get();
  schedule_.clock = this;
}

Clock::Clock(Name name, ActivityManagerConfig* manager)
    : Entity(std::move(name)), manager_(manager) {
  schedule_.clock = this;
}

Clock::~Clock() {
  if (manager_) manager_->clockScheduleIs(*this, kNever);
}

void Clock::minimumTimeIs(double time) {
  MOX_ASSERT(!std::isnan(time));
  if (time == minimumTime()) return;
  MOX_TRACE(trace, 8, name() << ": minimum time " << time);
  if (!manager_) return;  // the loop it belonged to has ended
  manager_->clockScheduleIs(*this, time);
}

void Clock::fire(double now) {
  time_ = now;
  MOX_TRACE(trace, 9, name() << ": fires at " << now);
  notify<Notifiee>([](Notifiee& notifiee) { notifiee.onTime(); });
}

}  // namespace Mox
