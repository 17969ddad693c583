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

// Copies count, moves do not, a copied object starts uncounted, casts follow the dynamic
// type, and the last reference deletes once.
TEST(Ptr, CountsReferencesAndDeletesOnce) {
  int deaths = 0;
  Mox::Ptr<Derived> d(new Derived(&deaths));
  Mox::Ptr<Counted> base = std::move(d);
  EXPECT_FALSE(d);
  EXPECT_EQ(base->references(), 1u);
  Mox::Ptr<const Counted> constView = base;
  EXPECT_EQ(base->references(), 2u);
  base = base;  // self-assignment keeps the object
  EXPECT_EQ(constView->references(), 2u);
  Mox::Ptr<Counted> copy(new Counted(*base));
  EXPECT_EQ(copy->references(), 1u);
  EXPECT_EQ(base->references(), 2u);
  EXPECT_TRUE(Mox::ptrCast<Derived>(base));
  EXPECT_FALSE(Mox::ptrCast<Derived>(copy));
  copy = base = nullptr;
  EXPECT_EQ(deaths, 1);
  constView = nullptr;
  EXPECT_EQ(deaths, 2);
}

}  // namespace
