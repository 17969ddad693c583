#pragma once
// The event loop: one per thread, on epoll. Each turn waits for a watched descriptor
// (Mox::FileDescriptor) or the earliest armed clock (Mox::Clock), whichever comes first,
// dispatches the descriptors that are ready, then fires the clocks that are due. Work
// deferred to it (Mox::Deferred) runs first, and a turn with such work does not wait. Nothing
// in it blocks except that one epoll_wait, and a turn allocates nothing.
//
// Under Mox::VirtualTime the loop never waits in real time: a turn that finds no
// descriptor ready moves virtual time straight to the next clock deadline (or to the limit
// of runUntil / runOnce, whichever is earlier), so timer tests run in microseconds and see
// exact times. A descriptor that is not ready at that moment counts as not ready before the
// deadline; only run(), with no deadline at all, blocks for a real descriptor.
//
//   auto fd = Mox::make<Mox::FileDescriptor>("pipe", fds[0]);
//   ...
//   EXPECT_TRUE(Mox::runUntil([&] { return fd->readableCount() > 0; }, 2.0));

#include <Mox/Clock.h>
#include <Mox/DeadlineHeap.h>
#include <Mox/Deferred.h>
#include <Mox/Entity.h>
#include <Mox/Ptr.h>
#include <Mox/Time.h>
#include <Mox/Types.h>

#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <vector>

namespace Mox {

class FileDescriptor;

// The event loop of one thread.
class ActivityManagerConfig : public Entity {
 public:
  // This thread's loop, made on first use.
  static Ptr<ActivityManagerConfig> current();
  ~ActivityManagerConfig() override;

  // The activity's own clock, shared by every reactor of the thread that watches it:
  //  - any watcher may arm it, for the next turn only (0.0); a watcher that needs a later
  //    time has a Clock of its own, since a shared clock keeps one time for everybody;
  //  - it fires for all its watchers at once, so every watcher sees every firing, including
  //    those another watcher asked for, and must check its own pending work in onTime();
  //  - only a watcher in onTime() may disarm it (kNever): every watcher is told of that
  //    firing in the same turn, so no request is lost. Disarming it anywhere else can drop
  //    another watcher's request.
  // New code that defers work uses Mox::Deferred, which keeps each owner's work apart.
  const Ptr<Clock>& clock() const noexcept { return clock_; }

  // Runs turns until stop().
  void run();
  // Makes run() return after the current turn. Safe from other threads and signal
  // handlers; a stop() before run() makes the next run() return at once.
  void stop() noexcept;

  // One turn that waits at most `maxWaitSeconds` for something to happen. Returns whether
  // a descriptor or a clock was dispatched.
  bool runOnce(double maxWaitSeconds = 0.0);
  // Turns until `condition` holds or `timeoutSeconds` have passed, in virtual time under
  // VirtualTime and always in real time too; returns whether the condition held.
  bool runUntil(const std::function<bool()>& condition, double timeoutSeconds);

  U64 turns() const noexcept { return turns_; }
  size_t watchedDescriptorCount() const noexcept { return slots_.size() - freeSlots_.size(); }
  size_t armedClockCount() const noexcept { return clocks_.size(); }

 private:
  friend class FileDescriptor;
  friend class Clock;
  friend class Deferred;
  static constexpr int kMaxEventsPerTurn = 64;
  // A wait limit that means "poll: do not wait, do not move virtual time".
  static constexpr double kNoWait = -kNever;

  struct Slot {
    FileDescriptor* fd = nullptr;
    U32 generation = 0;  // bumped when the slot is freed, so stale events are recognised
  };

  ActivityManagerConfig();

  // epoll registration of one descriptor, changed only when `events` differs from what
  // is registered; 0 removes it.
  void watchIs(FileDescriptor& fd, U32 events);
  void clockScheduleIs(Clock& clock, double time);

  // One turn that waits no later than `waitLimit` (an absolute time; kNever: no limit;
  // kNoWait: not at all).
  bool turn(double waitLimit);
  int waitForEvents(double waitLimit);
  int passVirtualTime(VirtualTime& virtualTime, double until);
  void dispatch(int eventCount);
  bool fireDueClocks();
  bool runDeferred();
  void drainWakeup() noexcept;

  int epollFd_ = -1;
  int wakeupFd_ = -1;  // eventfd that stop() writes to
  Ptr<Clock> clock_;
  std::vector<Slot> slots_;
  std::vector<U32> freeSlots_;
  DeadlineHeap clocks_;
  std::vector<DeadlineHeap::Entry*> dueEntries_;  // reused each turn: no allocation
  std::vector<Ptr<Clock>> dueClocks_;
  DeferredLink deferredQueue_;    // work for the next turn, in schedule() order
  DeferredLink deferredRunning_;  // work of this turn still to run
  epoll_event events_[kMaxEventsPerTurn];
  std::atomic<bool> stopRequested_{false};
  bool inTurn_ = false;
  U64 turns_ = 0;
};

// An activity: what a reactor runs under (it holds a Ptr<ActivityConfig> and finds its
// loop and the activity clock through it). Every activity of a thread shares that
// thread's loop.
class ActivityConfig : public Entity {
 public:
  // The thread's default activity, named "default", made on first use.
  static Ptr<ActivityConfig> current();

  // A new activity on this thread's loop.
  explicit ActivityConfig(Name name);
  ~ActivityConfig() override;

  const Ptr<ActivityManagerConfig>& manager() const noexcept { return manager_; }
  const Ptr<Clock>& clock() const noexcept { return manager_->clock(); }

 private:
  Ptr<ActivityManagerConfig> manager_;
};

// Shorthands for this thread's loop, for tests and tools.
bool runOnce(double maxWaitSeconds = 0.0);
bool runUntil(const std::function<bool()>& condition, double timeoutSeconds);

}  // namespace Mox
