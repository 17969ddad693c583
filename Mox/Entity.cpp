#include <Mox/Assert.h>
#include <Mox/Entity.h>

#include <algorithm>

namespace Mox {

Entity::~Entity() {
  MOX_ASSERT(notifieeCount() == 0);
}

size_t Entity::countAttached() const noexcept {
  return static_cast<size_t>(std::count_if(notifiees_.begin(), notifiees_.end(),
                                           [](const Slot& s) { return s.notifiee != nullptr; }));
}

void Entity::attach(NotifieeBase* notifiee, U8 level) const {
  notifiees_.push_back({notifiee, level});
}

void Entity::detach(NotifieeBase* notifiee) const {
  auto slot = std::find_if(notifiees_.begin(), notifiees_.end(),
                           [notifiee](const Slot& s) { return s.notifiee == notifiee; });
  if (slot == notifiees_.end()) return;
  if (walks_ > 0) {
    // A walk is indexing the vector: empty the slot, compact when the walk ends.
    *slot = {nullptr, 0};
    hasHoles_ = true;
  } else {
    notifiees_.erase(slot);
  }
}

void Entity::levelIs(NotifieeBase* notifiee, U8 level) const {
  for (Slot& slot : notifiees_) {
    if (slot.notifiee == notifiee) slot.level = level;
  }
}

void Entity::compact() const {
  std::erase_if(notifiees_, [](const Slot& s) { return s.notifiee == nullptr; });
  hasHoles_ = false;
}

Entity::NotifieeBase::~NotifieeBase() {
  notifierBaseIs(nullptr);
}

void Entity::NotifieeBase::notifierBaseIs(const Entity* notifier, U8 level) {
  if (notifier == notifier_.get()) {
    if (notifier_) notifier_->levelIs(this, level);
    return;
  }
  if (notifier_) notifier_->detach(this);
  // Attach before releasing the old notifier: dropping it may run arbitrary destructors.
  Ptr<const Entity> previous = std::move(notifier_);
  notifier_ = notifier;
  if (notifier_) notifier_->attach(this, level);
}

}  // namespace Mox
