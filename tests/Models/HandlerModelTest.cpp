// Attributes with a handler: the entity's own member runs after each real change, before
// the notifiees' hooks, and a handler that throws keeps the hooks from running.

#include <ModelTest/Handlers.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ModelTest {

void Switch::handleState() {
  handledInc();
  if (refuse()) throw Mox::RangeException("refused");
}

namespace {

// The generated base serves the hand-written class: its factory makes a Switch, its
// notifiees watch a Switch, and the handler stays out of the public API.
template <class Entity>
concept HandlerIsPublic = requires(Entity& entity) {
  entity.handleState();
};
static_assert(!HandlerIsPublic<Switch>);
static_assert(std::is_same_v<decltype(switchFactory("")), Mox::Ptr<Switch>>);
static_assert(std::is_same_v<decltype(std::declval<Switch::Notifiee&>().notifier()), Switch*>);

struct Recorder : Switch::Notifiee {
  explicit Recorder(Switch* entity) { notifierIs(entity); }
  void onState() override { events.push_back("state " + std::to_string(notifier()->state())); }
  void onHandled() override { events.push_back("handled"); }
  std::vector<std::string> events;
};

using Events = std::vector<std::string>;

// A throwing handler keeps the value but skips the hooks; the entity stays usable.
TEST(ModelHandler, RunsOnRealChangesBeforeTheHooksAndAThrowSkipsThem) {
  Mox::Ptr<Switch> entity = switchFactory("switch");
  Recorder recorder(entity.get());
  entity->stateIs(3);
  entity->stateIs(3);
  entity->stateDel();
  entity->stateDel();
  EXPECT_EQ(recorder.events, (Events{"handled", "state 3", "handled", "state 0"}));
  EXPECT_EQ(entity->handled(), 2u);
  entity->refuseIs(true);
  EXPECT_THROW(entity->stateIs(7), Mox::RangeException);
  EXPECT_EQ(entity->state(), 7);
  entity->refuseIs(false);
  entity->stateIs(8);
  EXPECT_EQ(recorder.events,
            (Events{"handled", "state 3", "handled", "state 0", "handled", "handled", "state 8"}));
}

}  // namespace
}  // namespace ModelTest
