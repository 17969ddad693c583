#pragma once
// Named, reference-counted runtime objects with notifiee lists. A notifiee watches one
// entity (its notifier) and is told about attribute changes through its virtual on-hooks.
// Notifying is safe while notifiees detach themselves or others, attach new ones (called
// from the next notification on), or drop the last reference to the entity.
//
// Notifiee classes form levels that follow the entity's own class chain: the Notifiee of a
// derived entity derives from the Notifiee of its base entity, declares
// `static constexpr U8 kLevel = Base::Notifiee::kLevel + 1;` and attaches with
// notifierBaseIs(notifier, kLevel); a Notifiee deriving NotifieeBase directly may rely on
// NotifieeBase's level. A notifiee remembers the level it attached through, and notify<N>
// reaches exactly those attached through N's level or a deeper one, which are N's by
// construction: no run-time type check per notifiee.

#include <Mox/Ptr.h>
#include <Mox/Types.h>

#include <type_traits>
#include <vector>

namespace Mox {

class AttrLogClass;

class Entity : public PtrInterface {
 public:
  class NotifieeBase;

  const Name& name() const noexcept { return name_; }
  // How the attribute log streams this entity; nullptr for entities that are never
  // streamed (see Mox/AttrLogClass.h).
  virtual const AttrLogClass* attrLogClass() const noexcept { return nullptr; }
  // Notifiees attached now (a slot emptied during a walk no longer counts).
  size_t notifieeCount() const noexcept { return hasHoles_ ? countAttached() : notifiees_.size(); }

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;
  ~Entity() override;

  // Calls fn(N&) for every notifiee attached through N's level or a deeper one. N is the
  // Notifiee class of this entity's class or of one of its bases.
  template <class N, class Fn>
  void notify(Fn&& fn) const;

 private:
  // The walk over several notifiees, kept out of line so that the common cases above
  // inline into every setter.
  template <class N, class Fn>
  [[gnu::noinline]] void notifyAll(Fn& fn) const;

  friend class NotifieeBase;
  struct Slot {
    NotifieeBase* notifiee;
    U8 level;  // 0 for a slot emptied during a walk: no notify reaches it
  };
  void attach(NotifieeBase* notifiee, U8 level) const;
  void detach(NotifieeBase* notifiee) const;
  void levelIs(NotifieeBase* notifiee, U8 level) const;
  void endWalk() const {
    if (--walks_ == 0 && hasHoles_) compact();
  }
  void compact() const;
  size_t countAttached() const noexcept;

  Name name_;
  mutable std::vector<Slot> notifiees_;
  mutable U32 walks_ = 0;          // nesting depth of notification walks in progress
  mutable bool hasHoles_ = false;  // detached during a walk, compacted when the walk ends
};

class Entity::NotifieeBase {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase();

  // The level of a Notifiee class that derives NotifieeBase directly and declares none.
  static constexpr U8 kLevel = 1;

  const Entity* notifierBase() const noexcept { return notifier_.get(); }

 protected:
  NotifieeBase() = default;
  // Detaches from the current notifier (if any) and attaches to the new one (if any) through
  // the Notifiee level `level`; attaching again to the same notifier changes the level in
  // place. The notifiee holds a reference to its notifier for as long as it watches it.
  void notifierBaseIs(const Entity* notifier, U8 level = kLevel);

 private:
  Ptr<const Entity> notifier_;
};

template <class N, class Fn>
inline void Entity::notify(Fn&& fn) const {
  static_assert(std::is_base_of_v<NotifieeBase, N> && N::kLevel >= 1);
  if (notifiees_.empty()) return;
  if (notifiees_.size() == 1) {
    // Nothing is read after the one hook, so whatever it does to the list or to the
    // entity's lifetime cannot affect this walk: no keep-alive and no walk mode needed.
    const Slot slot = notifiees_.front();
    if (slot.level >= N::kLevel) fn(static_cast<N&>(*slot.notifiee));
    return;
  }
  notifyAll<N>(fn);
}

template <class N, class Fn>
void Entity::notifyAll(Fn& fn) const {
  Ptr<const Entity> keepAlive(this);
  // Ends the walk however it ends: a hook that throws must not leave the list in walk mode.
  struct Walk {
    const Entity* entity;
    ~Walk() { entity->endWalk(); }
  } walk{this};
  ++walks_;
  // Indexed, not iterated: a hook may attach notifiees, which may grow the vector.
  const size_t count = notifiees_.size();
  for (size_t i = 0; i < count; ++i) {
    const Slot slot = notifiees_[i];
    if (slot.level >= N::kLevel) fn(static_cast<N&>(*slot.notifiee));
  }
}

}  // namespace Mox
