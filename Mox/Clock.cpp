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
  manager_->clockScheduleIs(*this, kNever);
}

void Clock::minimumTimeIs(double time) {
  MOX_ASSERT(!std::isnan(time));
  if (time == minimumTime()) return;
  MOX_TRACE(trace, 8, name() << ": minimum time " << time);
  manager_->clockScheduleIs(*this, time);
}

void Clock::fire(double now) {
  time_ = now;
  MOX_TRACE(trace, 9, name() << ": fires at " << now);
  notify<Notifiee>([](Notifiee& notifiee) { notifiee.onTime(); });
}

}  // namespace Mox
