#pragma once
// Helpers shared by the value-type test suites.

#include <Korva/Types.h>
#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

namespace KorvaTest {

// The text of the `E` that `f` raises, or "no exception".
template <class E = Mox::RangeException, class F>
std::string failureText(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "no exception";
}

// Parses `text` into a copy of `before` and returns the failure text; checks that a failed
// parse left the value as it was.
template <class T>
std::string parseFailure(std::string_view text, const T& before = T()) {
  T value = before;
  std::string failure = failureText([&] { value.stringValueIs(text); });
  if (failure != "no exception" && !(value == before)) return "value changed: " + failure;
  return failure;
}

// `text` read by stringValueIs, for types without a text constructor.
template <class T>
T parsed(std::string_view text) {
  T value;
  value.stringValueIs(text);
  return value;
}

// `predicate` holds for the values read from each text of `yes` and for none of `no`;
// failures name the caller's line.
template <class T>
void expectPredicate(bool (T::*predicate)() const, std::initializer_list<const char*> yes,
                     std::initializer_list<const char*> no = {},
                     std::source_location where = std::source_location::current()) {
  ::testing::ScopedTrace trace(where.file_name(), where.line(), "");
  for (const char* text : yes) EXPECT_TRUE((T(text).*predicate)()) << text;
  for (const char* text : no) EXPECT_FALSE((T(text).*predicate)()) << text;
}

// The texts read as `T`, sorted by its order and printed again.
template <class T>
std::vector<std::string> sortedTexts(std::initializer_list<const char*> texts) {
  std::vector<T> values(texts.begin(), texts.end());
  std::sort(values.begin(), values.end());
  std::vector<std::string> printed;
  for (const T& value : values) printed.push_back(value.stringValue());
  return printed;
}

}  // namespace KorvaTest
