#include <Mox/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

namespace {

using Mox::S32;
using Mox::S64;
using Mox::TextIter;
using Mox::U16;
using Mox::U32;
using Mox::U64;
using Mox::U8;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

// --- dectol, needString, skipString ---

TEST(Dectol, ReadsDigitsAndSaturatesConsumingTheWholeRun) {
  constexpr S64 kMax = std::numeric_limits<S64>::max();
  auto expectRead = [](std::string_view text, S64 value, size_t consumed) {
    TextIter it = text.data();
    EXPECT_EQ(Mox::dectol(it, text.data() + text.size()), value) << text;
    EXPECT_EQ(size_t(it - text.data()), consumed) << text;
  };
  expectRead("12345/6", 12345, 5);
  expectRead("x1", 0, 0);
  expectRead("", 0, 0);
  expectRead("007", 7, 3);
  expectRead(std::string_view("98765", 2), 98, 2);  // never reads past the end
  expectRead("9223372036854775807", kMax, 19);
  expectRead("9223372036854775806", kMax - 1, 19);
  expectRead("9223372036854775808", kMax, 19);
  expectRead("123456789012345678901234567890.", kMax, 30);
}

TEST(NeedString, StepsOverTheLiteralOrThrowsInPlace) {
  const std::string text = "Value('X'";
  TextIter it = text.data();
  const TextIter end = it + text.size();
  EXPECT_FALSE(Mox::skipString(it, end, "Vague"));
  EXPECT_EQ(it, text.data());
  EXPECT_TRUE(Mox::skipString(it, end, "Value"));
  EXPECT_EQ(it, text.data() + 5);
  EXPECT_THAT([&] { Mox::needString(it, end, "('X')"); },  // runs off the end
              ThrowsMessage<Mox::RangeException>(StrEq("Expected ('X')")));
  EXPECT_EQ(it, text.data() + 5);
  Mox::needString(it, end, "('X'");
  EXPECT_EQ(it, end);
  EXPECT_TRUE(Mox::skipString(it, end, ""));
}

// --- built-in text forms ---

TEST(ValueToStrep, PrintsTheRuntimeForms) {
  EXPECT_EQ(Mox::valueToStrep(true), "True");
  EXPECT_EQ(Mox::valueToStrep(false), "False");
  EXPECT_EQ(Mox::valueToStrep(U8{200}), "200");
  EXPECT_EQ(Mox::valueToStrep(S32{-5}), "-5");
  EXPECT_EQ(Mox::valueToStrep(0.5), "0.5");
  EXPECT_EQ(Mox::valueToStrep('q'), "'q'");
  EXPECT_EQ(Mox::valueToStrep("it's a\\b\n\t\r\x01\x7f\xc3\xa9"),
            "'it\\'s a\\\\b\\n\\t\\r\\x01\\x7f\xc3\xa9'");
  // Composite values (their forms are checked through generated models) without attributes.
  EXPECT_EQ(Mox::ValueText("Test::Empty").str(), "Value('Test::Empty', ** {})");
}

// Print, read back with trailing text after it, and compare.
template <class T, class Equal = std::equal_to<T>>
void expectRoundTrip(const T& value, Equal equal = {}) {
  const std::string text = Mox::strepOf(value) + ", next";
  T read{};
  TextIter it = text.data();
  Mox::deserializeAttr(it, text.data() + text.size(), &read);
  ASSERT_TRUE(equal(read, value)) << text;
  ASSERT_EQ(std::string_view(it), ", next") << text;
}

template <class T>
void roundTripIntegers(std::mt19937_64& random) {
  using Limits = std::numeric_limits<T>;
  for (T edge : {Limits::min(), Limits::max(), T(0), T(1), T(Limits::max() - 1)}) {
    expectRoundTrip(edge);
  }
  for (int i = 0; i < 2000; ++i) {
    // Random widths, so short and long numbers both occur.
    const U64 bits = random() >> (random() % 64);
    expectRoundTrip(static_cast<T>(bits));
  }
}

TEST(RoundTrip, IntegersBoolsAndChars) {
  std::mt19937_64 random(11);
  roundTripIntegers<U8>(random);
  roundTripIntegers<U16>(random);
  roundTripIntegers<U32>(random);
  roundTripIntegers<U64>(random);
  roundTripIntegers<S32>(random);
  roundTripIntegers<S64>(random);
  expectRoundTrip(true);
  expectRoundTrip(false);
  for (int c = 0; c < 256; ++c) expectRoundTrip(static_cast<char>(c));
}

TEST(RoundTrip, DoublesBitForBit) {
  auto sameBits = [](double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; };
  std::mt19937_64 random(12);
  constexpr double kInf = std::numeric_limits<double>::infinity();
  for (double edge : {0.0, -0.0, 1.0, 0.1, kInf, -kInf, std::numeric_limits<double>::min(),
                      std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::max(),
                      -std::numeric_limits<double>::max()}) {
    expectRoundTrip(edge, sameBits);
  }
  for (int i = 0; i < 5000; ++i) {
    const U64 bits = random();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isnan(value)) continue;
    expectRoundTrip(value, sameBits);
  }
  expectRoundTrip(std::nan(""), [](double read, double) { return std::isnan(read); });
}

TEST(RoundTrip, StringsOfAnyBytes) {
  std::mt19937_64 random(13);
  for (const char* edge : {"", "'", "\\", "\\'", "''", "\\x41", "a'b\\c\nd\0e"}) {
    expectRoundTrip(std::string(edge));
  }
  expectRoundTrip(std::string("nul\0inside", 10));
  for (int i = 0; i < 3000; ++i) {
    std::string value(random() % 24, '\0');
    for (char& c : value) c = static_cast<char>(random());
    expectRoundTrip(value);
  }
}

// A malformed or out-of-range text raises RangeException and changes neither the value nor
// the iterator.
template <class T>
void expectRefused(const std::string& text, T sentinel) {
  T value = sentinel;
  TextIter it = text.data();
  EXPECT_THROW(Mox::deserializeAttr(it, text.data() + text.size(), &value), Mox::RangeException)
      << text;
  EXPECT_TRUE(value == sentinel) << text;
  EXPECT_EQ(it, text.data()) << text;
}

TEST(Failure, RefusedTextLeavesValueAndIterator) {
  for (const char* text : {"256", "-1", "", "x", "1000"}) expectRefused<U8>(text, 42);
  for (const char* text : {"65536", "-", " 1"}) expectRefused<U16>(text, 42);
  for (const char* text : {"4294967296", "99999999999999999999"}) expectRefused<U32>(text, 42);
  for (const char* text : {"18446744073709551616", "99999999999999999999999", "-0"}) {
    expectRefused<U64>(text, 42);
  }
  for (const char* text : {"2147483648", "-2147483649", "-", "-x", "+1"}) {
    expectRefused<S32>(text, 42);
  }
  for (const char* text : {"9223372036854775808", "-9223372036854775809", "-"}) {
    expectRefused<S64>(text, 42);
  }
  for (const char* text : {"true", "Tru", "", "1"}) expectRefused<bool>(text, true);
  for (const char* text : {"x", "", "1e999", "--1"}) expectRefused<double>(text, 2.5);
  for (const char* text : {"'abc", "abc", "'\\q'", "'\\x4'", "'\\x4g'", "'\\", "\"a\""}) {
    expectRefused<std::string>(text, "kept");
  }
  for (const char* text : {"''", "'ab'", "a", "'a"}) expectRefused<char>(text, 'k');
}

TEST(ValueFromText, DemandsTheWholeText) {
  EXPECT_EQ(Mox::valueFromText<U16>("8080", "Invalid port"), 8080);
  for (const char* text : {"80x", "", "70000", " 80"}) {
    EXPECT_THAT([&] { Mox::valueFromText<U16>(text, "Invalid port"); },
                ThrowsMessage<Mox::RangeException>(StrEq("Invalid port")))
        << text;
  }
}

}  // namespace
