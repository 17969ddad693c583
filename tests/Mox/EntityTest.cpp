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
  void ring();

 private:
  bool* destroyed_;
};

class Door::Notifiee : public Mox::Entity::NotifieeBase {
 public:
  void notifierIs(const Door* door) { notifierBaseIs(door); }
  const Door* notifier() const { return static_cast<const Door*>(notifierBase()); }
  virtual void onOpen() {}
};

// A notifiee of a more specific kind: only it hears the bell.
class Bell : public Door::Notifiee {
 public:
  virtual void onRing() = 0;
};

void Door::open() {
  notify<Notifiee>([](Notifiee& n) { n.onOpen(); });
}
void Door::ring() {
  notify<Bell>([](Bell& b) { b.onRing(); });
}

using Calls = std::vector<std::string>;

// Records each call in a shared list, then runs an optional reaction.
class Recorder : public Bell {
 public:
  Recorder(std::string label, Calls* calls, const Door* door) : label_(label), calls_(calls) {
    notifierIs(door);
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
  Mox::Ptr<Door> door_ = Mox::make<Door>("front", &destroyed_);
  Calls calls_;
};

TEST_F(Entity, NotifieeHoldsItsNotifier) {
  auto a = recorder("a");
  EXPECT_EQ(door_->references(), 2u);
  bool otherDestroyed = false;
  Mox::Ptr<Door> other = Mox::make<Door>("back", &otherDestroyed);
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
  Door* door = door_.get();
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

// A plain Door::Notifiee that is not a Bell.
class Watcher : public Door::Notifiee {
 public:
  explicit Watcher(const Door* door) { notifierIs(door); }
  void onOpen() override { ++opens; }
  int opens = 0;
};

TEST_F(Entity, NotifiesOnlyNotifieesOfTheRequestedType) {
  Watcher watcher(door_.get());
  Recorder bell("bell", &calls_, door_.get());
  door_->ring();
  EXPECT_THAT(calls_, ElementsAre("bell rang"));
  EXPECT_EQ(watcher.opens, 0);
  door_->open();
  EXPECT_EQ(watcher.opens, 1);
  EXPECT_THAT(calls_, ElementsAre("bell rang", "bell"));
}

}  // namespace
