#include <Mox/Entity.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

using ::testing::ElementsAre;

class Door : public Mox::Entity {
 public:
  class Notifiee;

  Door(Mox::Name name, bool* destroyed) : Entity(std::move(name)), destroyed_(destroyed) {}
  ~Door() override { *destroyed_ = true; }

  void open();

 private:
  bool* destroyed_;
};

class Door::Notifiee : public Mox::Entity::NotifieeBase {
 public:
  void notifierIs(const Door* door) { notifierBaseIs(door); }
  const Door* notifier() const { return static_cast<const Door*>(notifierBase()); }
  virtual void onOpen() {}
};

void Door::open() {
  notify<Notifiee>([](Notifiee& n) { n.onOpen(); });
}

// A derived entity with hooks of its own: only notifiees attached through its level hear them.
class Gate : public Door {
 public:
  class Notifiee;
  using Door::Door;
  void ring();
};

class Gate::Notifiee : public Door::Notifiee {
 public:
  static constexpr Mox::U8 kLevel = Door::Notifiee::kLevel + 1;
  void notifierIs(const Gate* gate) { notifierBaseIs(gate, kLevel); }
  virtual void onRing() = 0;
};

void Gate::ring() {
  notify<Notifiee>([](Notifiee& n) { n.onRing(); });
}

using Calls = std::vector<std::string>;

// Records each call in a shared list, then runs an optional reaction.
class Recorder : public Gate::Notifiee {
 public:
  Recorder(std::string label, Calls* calls, const Gate* gate) : label_(label), calls_(calls) {
    notifierIs(gate);
  }
  void onOpen() override {
    calls_->push_back(label_);
    if (reaction) reaction();
  }
  void onRing() override { calls_->push_back(label_ + " rang"); }

  std::function<void()> reaction;

 private:
  std::string label_;
  Calls* calls_;
};

class Entity : public ::testing::Test {
 protected:
  std::unique_ptr<Recorder> recorder(std::string label) {
    return std::make_unique<Recorder>(std::move(label), &calls_, door_.get());
  }

  bool destroyed_ = false;
  Mox::Ptr<Gate> door_ = Mox::make<Gate>("front", &destroyed_);
  Calls calls_;
};

TEST_F(Entity, NotifieeHoldsItsNotifier) {
  auto a = recorder("a");
  EXPECT_EQ(door_->references(), 2u);
  bool otherDestroyed = false;
  Mox::Ptr<Gate> other = Mox::make<Gate>("back", &otherDestroyed);
  a->notifierIs(other.get());
  EXPECT_EQ(door_->notifieeCount(), 0u);
  EXPECT_EQ(door_->references(), 1u);
  EXPECT_EQ(a->notifier(), other.get());
  a.reset();
  EXPECT_EQ(other->notifieeCount(), 0u);
  EXPECT_EQ(other->references(), 1u);
}

TEST_F(Entity, DetachSelfAndDeleteAnotherDuringNotification) {
  auto a = recorder("a"), b = recorder("b"), c = recorder("c"), d = recorder("d");
  b->reaction = [&] {
    b->notifierIs(nullptr);
    c.reset();               // not yet notified in this walk: must not be called
    a->notifierIs(nullptr);  // already notified in this walk
  };
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("a", "b", "d"));
  EXPECT_EQ(door_->notifieeCount(), 1u);
  calls_.clear();
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("d"));
}

TEST_F(Entity, AttachedOrReattachedDuringNotificationHearsFromTheNextOne) {
  auto a = recorder("a"), b = recorder("b");
  std::unique_ptr<Recorder> late;
  a->reaction = [&] {
    if (late) return;
    late = recorder("late");
    b->notifierIs(nullptr);
    b->notifierIs(door_.get());  // moves to the end of the list
  };
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("a"));
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("a", "a", "late", "b"));
  EXPECT_EQ(door_->notifieeCount(), 3u);
}

TEST_F(Entity, LastReferenceDroppedDuringNotification) {
  auto a = recorder("a"), b = recorder("b");
  Gate* door = door_.get();
  bool destroyedDuringWalk = true;
  a->reaction = [&] {
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);
    door_ = nullptr;
    destroyedDuringWalk = destroyed_;
  };
  door->open();
  EXPECT_FALSE(destroyedDuringWalk);  // the walk kept it alive to the end
  EXPECT_TRUE(destroyed_);
  EXPECT_THAT(calls_, ElementsAre("a"));
}

TEST_F(Entity, NestedNotificationDetachesSafely) {
  auto a = recorder("a"), b = recorder("b"), c = recorder("c");
  bool nested = false;
  a->reaction = [&] {
    if (std::exchange(nested, true)) return;
    door_->open();
  };
  b->reaction = [&] { b->notifierIs(nullptr); };
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("a", "a", "b", "c", "c"));
  EXPECT_EQ(door_->notifieeCount(), 2u);
}

// A Door::Notifiee: it watches a Gate at the Door's level.
class Watcher : public Door::Notifiee {
 public:
  explicit Watcher(const Door* door) { notifierIs(door); }
  void onOpen() override { ++opens; }
  int opens = 0;
};

TEST_F(Entity, DerivedHooksReachOnlyNotifieesAttachedAtTheDerivedLevel) {
  Watcher watcher(door_.get());
  Recorder bell("bell", &calls_, door_.get());
  door_->ring();
  door_->open();
  EXPECT_EQ(watcher.opens, 1);
  EXPECT_THAT(calls_, ElementsAre("bell rang", "bell"));

  // Re-attached through the Door's level, in place: the bell no longer hears the ring.
  bell.Door::Notifiee::notifierIs(door_.get());
  EXPECT_EQ(door_->notifieeCount(), 2u);
  door_->ring();
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("bell rang", "bell", "bell"));
  bell.notifierIs(door_.get());
  door_->ring();
  EXPECT_THAT(calls_, ElementsAre("bell rang", "bell", "bell", "bell rang"));
}

TEST_F(Entity, NotifieesChangingDuringAWalk) {
  auto a = recorder("a"), b = recorder("b");
  Watcher watcher(door_.get());
  a->reaction = [&] {
    b->Door::Notifiee::notifierIs(door_.get());  // down to the Door's level
    watcher.notifierIs(nullptr);
    auto late = recorder("late");  // not in this walk, but in the nested one
    door_->ring();                 // nested: b is no longer rung
  };
  b->reaction = [&] { a->notifierIs(nullptr); };
  door_->open();
  EXPECT_THAT(calls_, ElementsAre("a", "a rang", "late rang", "b"));
  EXPECT_EQ(watcher.opens, 0);
  EXPECT_EQ(door_->notifieeCount(), 1u);
  a->reaction = b->reaction = nullptr;
  a->notifierIs(door_.get());
  door_->ring();
  EXPECT_THAT(calls_, ElementsAre("a", "a rang", "late rang", "b", "a rang"));
}

}  // namespace
