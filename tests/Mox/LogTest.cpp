#include <Mox/Log.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <random>

namespace {

using Mox::LogHandle;
using Mox::LogSeverity;
using Mox::S32;
using Mox::S64;
using Mox::U16;
using Mox::U32;
using Mox::U64;
using Mox::U8;

constexpr LogHandle<U32> TEST_TABLE_FULL{"TEST_TABLE_FULL", LogSeverity::error,
                                         "A table has overflowed at %u values.",
                                         "Remove some entries."};

struct Point {
  int x, y;
  friend std::ostream& operator<<(std::ostream& os, const Point& p) {
    return os << '(' << p.x << ", " << p.y << ')';
  }
};

// A mismatched declaration does not compile; these say which ones.
static_assert(Mox::logFormatMatches<U32>("at %u values"));
static_assert(Mox::logFormatMatches<S32, U64, std::string, Point>("%d %lu %s %s 100%%"));
static_assert(Mox::logFormatMatches<U8, U16>("%x %hu"));
static_assert(!Mox::logFormatMatches<S32>("%u"));
static_assert(!Mox::logFormatMatches<U32>("%s"));
static_assert(!Mox::logFormatMatches<std::string>("%d"));
static_assert(!Mox::logFormatMatches<U32, U32>("%u"));
static_assert(!Mox::logFormatMatches<U32>("%u %u"));
static_assert(!Mox::logFormatMatches<U32>("%f"));
static_assert(!Mox::logFormatMatches<>("trailing %"));

TEST(LogFormat, FillsConversionsInOrder) {
  EXPECT_EQ(TEST_TABLE_FULL.text(4096), "A table has overflowed at 4096 values.");
  constexpr LogHandle<S32, std::string, const char*, Point, bool, char> mixed{
      "TEST_MIXED", LogSeverity::info, "%d%% [%s] %s at %s: %s %s", ""};
  EXPECT_EQ(mixed.text(-7, "it's", "plain", Point{1, 2}, true, 'c'),
            "-7% [it's] plain at (1, 2): true c");
}

// Differential: integers print as glibc's printf prints them.
TEST(LogFormat, IntegersMatchPrintf) {
  constexpr LogHandle<S64, U64, U64> numbers{"TEST_NUMBERS", LogSeverity::debug, "%lld %llu %llx",
                                             ""};
  std::mt19937_64 random(7);
  std::vector<U64> samples{0, 1, std::numeric_limits<U64>::max(), U64(1) << 63};
  for (int i = 0; i < 1000; ++i) samples.push_back(random() >> (random() % 64));
  for (U64 sample : samples) {
    const S64 signedSample = static_cast<S64>(sample);
    char expected[80];
    std::snprintf(expected, sizeof expected, "%lld %llu %llx", static_cast<long long>(signedSample),
                  static_cast<unsigned long long>(sample), static_cast<unsigned long long>(sample));
    ASSERT_EQ(numbers.text(signedSample, sample, sample), expected);
  }
}

// Written as name, severity and text to standard error, unless a capture collects it.
TEST(LogWrite, WritesNameSeverityAndTextToStandardErrorOrTheCapture) {
  testing::internal::CaptureStderr();
  TEST_TABLE_FULL.log(7);
  {
    Mox::LogCapture capture;
    TEST_TABLE_FULL.log(12);
    TEST_TABLE_FULL.log(13);
    ASSERT_EQ(capture.count("TEST_TABLE_FULL"), 2u);
    const Mox::LoggedMessage last = capture.messages().back();
    EXPECT_EQ(last.name, "TEST_TABLE_FULL");
    EXPECT_EQ(last.severity, LogSeverity::error);
    EXPECT_EQ(last.text, "A table has overflowed at 13 values.");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "%TEST_TABLE_FULL-3: A table has overflowed at 7 values.\n");
}

}  // namespace
