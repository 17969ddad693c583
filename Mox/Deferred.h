#pragma once
// Work for the next turn of the event loop: what a reactor runs later instead of now, so
// that a send does not re-enter its receiver or a long burst yields to the descriptors.
//
// A Deferred belongs to one owner and holds one piece of work. schedule() queues it
// behind every Deferred already queued on the thread's loop; the next turn runs the queue
// in that order (first in, first out) before it waits, and work scheduled while the queue
// runs waits for the turn after. Scheduling a queued Deferred keeps its place; cancel()
// and the destructor take it out. The work may schedule, cancel or destroy its own
// Deferred. A turn with work queued does not wait, and under Mox::VirtualTime it does not
// move the time: deferred work runs at the time it was scheduled.
//
//   Mox::Deferred resume_{[this] { handleReadable(); }};
//   ...
//   if (budgetSpent) resume_.schedule();

#include <Mox/Ptr.h>

#include <functional>

namespace Mox {

class ActivityManagerConfig;
class Deferred;

// A place in a loop's deferred queue (a circular list through a sentinel).
struct DeferredLink {
  DeferredLink* prev = this;
  DeferredLink* next = this;
  Deferred* owner = nullptr;

  bool linked() const noexcept { return next != this; }
  void unlink() noexcept;
  void linkBefore(DeferredLink& position) noexcept;
  // On a sentinel: moves every entry of `other` (in order) ahead of this list's own.
  void takeFront(DeferredLink& other) noexcept;
};

class Deferred {
 public:
  // Work for this thread's loop.
  explicit Deferred(std::function<void()> work);
  ~Deferred();
  Deferred(const Deferred&) = delete;
  Deferred& operator=(const Deferred&) = delete;

  void schedule() noexcept;
  void cancel() noexcept { link_.unlink(); }
  bool scheduled() const noexcept { return link_.linked(); }

 private:
  friend class ActivityManagerConfig;

  std::function<void()> work_;
  Ptr<ActivityManagerConfig> manager_;
  DeferredLink link_;
};

}  // namespace Mox
