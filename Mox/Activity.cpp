#include <Mox/Activity.h>
#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace Mox {

namespace {

TraceHandle trace("Activity");

// Event data of the wake-up eventfd; descriptor slots never reach it.
constexpr U64 kWakeupData = ~U64(0);

U64 slotData(U32 slot, U32 generation) noexcept {
  return (U64(generation) << 32) | slot;
}

// epoll_wait's timeout for a wait of `seconds`, rounded up so the loop never wakes before
// a deadline and spins.
int timeoutMilliseconds(double seconds) noexcept {
  if (seconds == kNever) return -1;
  if (seconds <= 0.0) return 0;
  const double ms = std::ceil(seconds * 1000.0);
  return ms >= double(INT_MAX) ? INT_MAX : int(ms);
}

thread_local Ptr<ActivityManagerConfig> threadManager;
thread_local Ptr<ActivityConfig> threadActivity;

}  // namespace

// --- ActivityManagerConfig ---

Ptr<ActivityManagerConfig> ActivityManagerConfig::current() {
  if (!threadManager) threadManager = Ptr<ActivityManagerConfig>(new ActivityManagerConfig());
  return threadManager;
}

ActivityManagerConfig::ActivityManagerConfig() : Entity("ActivityManagerConfig") {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) throw ErrnoException(errno, "epoll_create1");
  wakeupFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeupFd_ < 0) {
    const int error = errno;
    close(epollFd_);
    throw ErrnoException(error, "eventfd");
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kWakeupData;
  if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeupFd_, &event) < 0) {
    const int error = errno;
    close(wakeupFd_);
    close(epollFd_);
    throw ErrnoException(error, "epoll_ctl(EPOLL_CTL_ADD)");
  }
  clock_ = Ptr<Clock>(new Clock("ActivityManagerConfig::clock", this));
}

ActivityManagerConfig::~ActivityManagerConfig() {
  // The clock unschedules itself through this object, so it goes while everything is here.
  clock_ = nullptr;
  MOX_ASSERT(watchedDescriptorCount() == 0);
  close(wakeupFd_);
  close(epollFd_);
}

void ActivityManagerConfig::run() {
  while (!stopRequested_.load(std::memory_order_relaxed)) turn(kNever);
  stopRequested_.store(false, std::memory_order_relaxed);
  // A stop() made from a reactor or before run() leaves its wake-up unread; consume it so
  // the next run or turn does not take an extra turn for it.
  drainWakeup();
}

void ActivityManagerConfig::stop() noexcept {
  stopRequested_.store(true, std::memory_order_relaxed);
  const U64 one = 1;
  // A full counter already wakes the loop, so a failed write loses nothing.
  [[maybe_unused]] ssize_t written = write(wakeupFd_, &one, sizeof(one));
}

bool ActivityManagerConfig::runOnce(double maxWaitSeconds) {
  return turn(maxWaitSeconds <= 0.0 ? kNoWait : now() + maxWaitSeconds);
}

bool ActivityManagerConfig::runUntil(const std::function<bool()>& condition,
                                     double timeoutSeconds) {
  const double limit = now() + timeoutSeconds;
  // Virtual time stands still while descriptors keep being ready, so the timeout also
  // holds in real time.
  const double realLimit = monotonicNow() + timeoutSeconds;
  for (;;) {
    if (condition()) return true;
    if (now() >= limit || monotonicNow() >= realLimit) return false;
    turn(limit);
  }
}

bool ActivityManagerConfig::turn(double waitLimit) {
  MOX_ASSERT_TEXT(!inTurn_, "event loop re-entered from a reactor");
  // A reactor's exception leaves the turn and reaches the caller; the loop stays usable.
  struct TurnScope {
    bool& inTurn;
    ~TurnScope() { inTurn = false; }
  } scope{inTurn_};
  inTurn_ = true;
  ++turns_;
  const bool ranDeferred = runDeferred();
  const int eventCount = waitForEvents(deferredQueue_.linked() ? kNoWait : waitLimit);
  dispatch(eventCount);
  const bool fired = fireDueClocks();
  return ranDeferred || eventCount > 0 || fired;
}

bool ActivityManagerConfig::runDeferred() {
  if (!deferredQueue_.linked()) return false;
  // What is scheduled from here on is for the next turn. If a piece of work throws, the
  // rest goes back to the head of the queue, ahead of anything scheduled meanwhile.
  deferredRunning_.takeFront(deferredQueue_);
  struct Requeue {
    DeferredLink& queue;
    DeferredLink& running;
    ~Requeue() { queue.takeFront(running); }
  } requeue{deferredQueue_, deferredRunning_};
  while (deferredRunning_.linked()) {
    Deferred& deferred = *deferredRunning_.next->owner;
    deferred.link_.unlink();
    // The work may destroy its Deferred: nothing touches it afterwards.
    deferred.work_();
  }
  return true;
}

int ActivityManagerConfig::waitForEvents(double waitLimit) {
  const double deadline = clocks_.earliest();
  VirtualTime* virtualTime = VirtualTime::current();
  int timeout = 0;
  if (!virtualTime && waitLimit != kNoWait) {
    // Reading the time costs a little, so a wait without deadline or limit skips it.
    const double until = std::min(deadline, waitLimit);
    timeout = until == kNever ? -1 : timeoutMilliseconds(until - now());
  }
  int count = epoll_wait(epollFd_, events_, kMaxEventsPerTurn, timeout);
  if (count == 0 && virtualTime && waitLimit != kNoWait) {
    count = passVirtualTime(*virtualTime, std::min(deadline, waitLimit));
  }
  if (count >= 0) return count;
  if (errno == EINTR) return 0;
  throw ErrnoException(errno, "epoll_wait");
}

int ActivityManagerConfig::passVirtualTime(VirtualTime& virtualTime, double until) {
  if (until != kNever) {
    // Nothing is ready: go straight to the next deadline (or the limit).
    virtualTime.timeIs(until);
    return 0;
  }
  // Nothing virtual will ever happen: only a real descriptor (or stop()) can.
  return epoll_wait(epollFd_, events_, kMaxEventsPerTurn, -1);
}

void ActivityManagerConfig::dispatch(int eventCount) {
  for (int i = 0; i < eventCount; ++i) {
    const U64 data = events_[i].data.u64;
    if (data == kWakeupData) {
      drainWakeup();
      continue;
    }
    const U32 slot = U32(data);
    // A reactor earlier in this batch may have closed the descriptor (and another may
    // have taken its slot): the generation tells.
    if (slots_[slot].generation != U32(data >> 32) || !slots_[slot].fd) continue;
    slots_[slot].fd->ready(events_[i].events);
  }
}

bool ActivityManagerConfig::fireDueClocks() {
  if (clocks_.empty()) return false;
  const double time = now();
  if (clocks_.earliest() > time) return false;
  struct ClearOnExit {
    std::vector<DeadlineHeap::Entry*>& entries;
    std::vector<Ptr<Clock>>& clocks;
    ~ClearOnExit() {
      entries.clear();
      clocks.clear();
    }
  } clear{dueEntries_, dueClocks_};
  clocks_.appendDue(time, dueEntries_);
  for (DeadlineHeap::Entry* entry : dueEntries_) {
    dueClocks_.emplace_back(static_cast<Clock::Schedule*>(entry)->clock);
  }
  // A reactor of an earlier clock may re-arm or disarm a later one: fire only what is
  // still due. A clock re-armed for now fires on the next turn, not in a loop here.
  for (const Ptr<Clock>& clock : dueClocks_) {
    if (clock->minimumTime() <= time) clock->fire(time);
  }
  return true;
}

void ActivityManagerConfig::drainWakeup() noexcept {
  U64 count;
  [[maybe_unused]] ssize_t got = read(wakeupFd_, &count, sizeof(count));
}

void ActivityManagerConfig::watchIs(FileDescriptor& fd, U32 events) {
  if (events == fd.watchedEvents_) return;
  if (events == 0) {
    if (epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd.descriptor_, nullptr) < 0) {
      MOX_TRACE(trace, 1, fd.name() << ": epoll_ctl(EPOLL_CTL_DEL): " << std::strerror(errno));
    }
    ++slots_[fd.slot_].generation;
    slots_[fd.slot_].fd = nullptr;
    freeSlots_.push_back(fd.slot_);
    fd.slot_ = FileDescriptor::kNoSlot;
    fd.watchedEvents_ = 0;
    return;
  }
  const bool adding = fd.watchedEvents_ == 0;
  U32 slot = fd.slot_;
  if (adding) {
    if (freeSlots_.empty()) {
      slot = U32(slots_.size());
      slots_.emplace_back();
    } else {
      slot = freeSlots_.back();
      freeSlots_.pop_back();
    }
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = slotData(slot, slots_[slot].generation);
  if (epoll_ctl(epollFd_, adding ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd.descriptor_, &event) < 0) {
    const int error = errno;
    if (adding) freeSlots_.push_back(slot);
    throw ErrnoException(error, adding ? "epoll_ctl(EPOLL_CTL_ADD)" : "epoll_ctl(EPOLL_CTL_MOD)");
  }
  slots_[slot].fd = &fd;
  fd.slot_ = slot;
  fd.watchedEvents_ = events;
  MOX_TRACE(
      trace, 8,
      fd.name() << ": watching fd " << fd.descriptor_ << " for events 0x" << std::hex << events);
}

void ActivityManagerConfig::clockScheduleIs(Clock& clock, double time) {
  clocks_.schedule(&clock.schedule_, time);
}

// --- ActivityConfig ---

Ptr<ActivityConfig> ActivityConfig::current() {
  if (!threadActivity) threadActivity = make<ActivityConfig>("default");
  return threadActivity;
}

ActivityConfig::ActivityConfig(Name name)
    : Entity(std::move(name)), manager_(ActivityManagerConfig::current()) {}

ActivityConfig::~ActivityConfig() = default;

// --- shorthands ---

bool runOnce(double maxWaitSeconds) {
  return ActivityManagerConfig::current()->runOnce(maxWaitSeconds);
}

bool runUntil(const std::function<bool()>& condition, double timeoutSeconds) {
  return ActivityManagerConfig::current()->runUntil(condition, timeoutSeconds);
}

}  // namespace Mox
