#include <Mox/Assert.h>
#include <Mox/Time.h>

#include <time.h>

namespace Mox {

namespace {

VirtualTime* virtualTime = nullptr;

}  // namespace

double monotonicNow() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double now() noexcept {
  return virtualTime ? virtualTime->time() : monotonicNow();
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
