#include <Mox/Assert.h>
#include <Mox/Time.h>

#include <time.h>

#include <algorithm>

namespace Mox {

namespace {

VirtualTime* virtualTime = nullptr;

double toSeconds(const timespec& ts) {
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// How far the coarse clock may be behind the fine one: it moves once per tick, and the tick
// that moves it may come a little late, hence twice the tick.
double coarseLag() {
  static const double lag = [] {
    timespec resolution;
    clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
    return 2 * toSeconds(resolution);
  }();
  return lag;
}

}  // namespace

double monotonicNow() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return toSeconds(ts);
}

double now() noexcept {
  return virtualTime ? virtualTime->time() : monotonicNow();
}

TimeBudget::TimeBudget(double seconds) noexcept
    : start_(now()),
      seconds_(seconds),
      coarseLimit_(
          static_cast<S64>(std::clamp((start_ + seconds - coarseLag()) * 1e9, -9e18, 9e18))) {}

bool TimeBudget::usedUp() const noexcept {
  if (!virtualTime) {
    timespec coarse;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &coarse);
    if (coarse.tv_sec * S64(1'000'000'000) + coarse.tv_nsec <= coarseLimit_) return false;
  }
  return now() - start_ > seconds_;
}

VirtualTime::VirtualTime(double start) : start_(start), time_(start) {
  MOX_ASSERT(virtualTime == nullptr);
  virtualTime = this;
}

VirtualTime::~VirtualTime() {
  virtualTime = nullptr;
}

void VirtualTime::timeIs(double time) noexcept {
  if (time > time_) time_ = time;
}

VirtualTime* VirtualTime::current() noexcept {
  return virtualTime;
}

}  // namespace Mox
