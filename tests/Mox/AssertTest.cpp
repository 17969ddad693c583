#include <Mox/Assert.h>

#include <gtest/gtest.h>

#include <csignal>

namespace {

int checkedHalf(int value) {
  MOX_ASSERT(value % 2 == 0);
  return value / 2;
}

struct Session {
  void start(int connError) { MOX_ASSERT_TEXT(connError == 115, "connError == 115"); }
};

TEST(AssertDeathTest, PrintsConditionUnitAndFunction) {
  EXPECT_EQ(checkedHalf(8), 4);
  EXPECT_EXIT(checkedHalf(3), testing::KilledBySignal(SIGABRT),
              "^Assertion \"value % 2 == 0\" failed in tests/Mox/AssertTest.cpp, int "
              "\\{anonymous\\}::checkedHalf\\(int\\)\n$");
}

TEST(AssertDeathTest, TextVariantQuotesItsOwnText) {
  Session session;
  session.start(115);
  EXPECT_DEATH(session.start(111),
               "^Assertion \"connError == 115\" failed in tests/Mox/AssertTest.cpp, void "
               "\\{anonymous\\}::Session::start\\(int\\)\n$");
}

}  // namespace
