#include <Mox/Assert.h>
#include <Mox/Entity.h>

#include <algorithm>

namespace Mox {

Entity::~Entity() { MOX_ASSERT(notifieeCount() == 0); }

size_t Entity::notifieeCount() const noexcept {
  return static_cast<size_t>(std::count_if(notifiees_.begin(), notifiees_.end(),
                                           [](NotifieeBase* n) { return n != nullptr; }));
}

void Entity::attach(NotifieeBase* notifiee) const { notifiees_.push_back(notifiee); }

void Entity::detach(NotifieeBase* notifiee) const {
  auto slot = std::find(notifiees_.begin(), notifiees_.end(), notifiee);
  if (slot == notifiees_.end()) return;
  if (walks_ > 0) {
    // A walk is indexing the vector: empty the slot, compact when the walk ends.
    *slot = nullptr;
    hasHoles_ = true;
  } else {
    notifiees_.erase(slot);
  }
}

void Entity::endWalk() const {
  if (--walks_ > 0 || !hasHoles_) return;
  std::erase(notifiees_, nullptr);
  hasHoles_ = false;
}

Entity::NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void Entity::NotifieeBase::notifierBaseIs(const Entity* notifier) {
  if (notifier == notifier_.get()) return;
  if (notifier_) notifier_->detach(this);
  // Attach before releasing the old notifier: dropping it may run arbitrary destructors.
  Ptr<const Entity> previous = std::move(notifier_);
  notifier_ = notifier;
  if (notifier_) notifier_->attach(this);
}

}  // namespace Mox
