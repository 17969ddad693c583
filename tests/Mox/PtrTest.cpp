#include <Mox/Ptr.h>

#include <gtest/gtest.h>

namespace {

struct Counted : Mox::PtrInterface {
  explicit Counted(int* deaths) : deaths(deaths) {}
  ~Counted() override { ++*deaths; }
  int* deaths;
};

struct Derived : Counted {
  using Counted::Counted;
};

TEST(Ptr, CopiesCountMovesDoNotAndTheLastReferenceDeletesOnce) {
  int deaths = 0;
  Mox::Ptr<Derived> d(new Derived(&deaths));
  Mox::Ptr<Counted> base = std::move(d);
  EXPECT_FALSE(d);
  EXPECT_EQ(base->references(), 1u);
  Mox::Ptr<const Counted> constView = base;
  EXPECT_EQ(base->references(), 2u);
  base = base;  // self-assignment keeps the object
  EXPECT_EQ(constView->references(), 2u);
  base = nullptr;
  EXPECT_EQ(deaths, 0);
  constView = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(Ptr, CopyOfObjectStartsUncounted) {
  int deaths = 0;
  Mox::Ptr<Counted> a(new Counted(&deaths));
  Mox::Ptr<Counted> copy(new Counted(*a));
  EXPECT_EQ(copy->references(), 1u);
  EXPECT_EQ(a->references(), 1u);
}

TEST(Ptr, CastFollowsDynamicType) {
  int deaths = 0;
  EXPECT_TRUE(Mox::ptrCast<Derived>(Mox::Ptr<Counted>(new Derived(&deaths))));
  EXPECT_FALSE(Mox::ptrCast<Derived>(Mox::Ptr<Counted>(new Counted(&deaths))));
  EXPECT_EQ(deaths, 2);
}

}  // namespace
