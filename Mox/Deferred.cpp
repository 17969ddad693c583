#include <Mox/Activity.h>
#include <Mox/Deferred.h>

namespace Mox {

void DeferredLink::unlink() noexcept {
  prev->next = next;
  next->prev = prev;
  prev = next = this;
}

void DeferredLink::linkBefore(DeferredLink& position) noexcept {
  prev = position.prev;
  next = &position;
  prev->next = this;
  position.prev = this;
}

void DeferredLink::takeFront(DeferredLink& other) noexcept {
  if (!other.linked()) return;
  DeferredLink* first = other.next;
  DeferredLink* last = other.prev;
  other.prev = other.next = &other;
  last->next = next;
  next->prev = last;
  next = first;
  first->prev = this;
}

Deferred::Deferred(std::function<void()> work)
    : work_(std::move(work)), manager_(ActivityManagerConfig::current()) {
  link_.owner = this;
}

Deferred::~Deferred() {
  cancel();
}

void Deferred::schedule() noexcept {
  if (!scheduled()) link_.linkBefore(manager_->deferredQueue_);
}

}  // namespace Mox
