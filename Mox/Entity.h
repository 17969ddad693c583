#pragma once
// Named, reference-counted runtime objects with notifiee lists. A notifiee watches one
// entity (its notifier) and is told about attribute changes through its virtual on-hooks.
// Notifying is safe while notifiees detach themselves or others, attach new ones (called
// from the next notification on), or drop the last reference to the entity.

#include <Mox/Ptr.h>
#include <Mox/Types.h>

#include <vector>

namespace Mox {

class Entity : public PtrInterface {
 public:
  class NotifieeBase;

  const Name& name() const noexcept { return name_; }
  // Notifiees attached now (a slot emptied during a walk no longer counts).
  size_t notifieeCount() const noexcept;

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;
  ~Entity() override;

  // Calls fn(N&) for every attached notifiee that is an N.
  template <class N, class Fn>
  void notify(Fn&& fn) const;

 private:
  friend class NotifieeBase;
  void attach(NotifieeBase* notifiee) const;
  void detach(NotifieeBase* notifiee) const;
  void endWalk() const;

  Name name_;
  mutable std::vector<NotifieeBase*> notifiees_;
  mutable U32 walks_ = 0;       // nesting depth of notification walks in progress
  mutable bool hasHoles_ = false;  // detached during a walk, compacted when the walk ends
};

class Entity::NotifieeBase {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase();

  const Entity* notifierBase() const noexcept { return notifier_.get(); }

 protected:
  NotifieeBase() = default;
  // Detaches from the current notifier (if any) and attaches to the new one (if any). The
  // notifiee holds a reference to its notifier for as long as it watches it.
  void notifierBaseIs(const Entity* notifier);

 private:
  Ptr<const Entity> notifier_;
};

template <class N, class Fn>
void Entity::notify(Fn&& fn) const {
  if (notifiees_.empty()) return;
  Ptr<const Entity> keepAlive(this);
  // Ends the walk however it ends: a hook that throws must not leave the list in walk mode.
  struct Walk {
    const Entity* entity;
    ~Walk() { entity->endWalk(); }
  } walk{this};
  ++walks_;
  const size_t count = notifiees_.size();
  for (size_t i = 0; i < count; ++i) {
    if (auto* notifiee = dynamic_cast<N*>(notifiees_[i])) fn(*notifiee);
  }
}

}  // namespace Mox
