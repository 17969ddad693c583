#pragma once
// A hand-written entity that a test model derives from, as model entities derive from
// hand-written bases such as a Pam.

#include <Mox/Entity.h>

namespace ModelTest {

class HandWrittenBase : public Mox::Entity {
 public:
  class Notifiee : public Mox::Entity::NotifieeBase {
   public:
    virtual void onPoked() {}
  };

  void poke() {
    notify<Notifiee>([](Notifiee& notifiee) { notifiee.onPoked(); });
  }

 protected:
  explicit HandWrittenBase(const Mox::Name& name) : Mox::Entity(name) {}
};

}  // namespace ModelTest
