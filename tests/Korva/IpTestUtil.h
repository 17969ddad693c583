#pragma once
// Helpers shared by the address test suites.

#include <Mox/Exception.h>
#include <Mox/Types.h>

#include <string>
#include <string_view>

namespace KorvaTest {

// The RangeException text `f` raises, or "no exception".
template <class F>
std::string rangeFailure(F&& f) {
  try {
    f();
  } catch (const Mox::RangeException& e) {
    return e.what();
  }
  return "no exception";
}

// Parses `text` into a copy of `before` and returns the failure text; checks that a failed
// parse left the value as it was.
template <class T>
std::string parseFailure(std::string_view text, const T& before = T()) {
  T value = before;
  std::string failure = rangeFailure([&] { value.stringValueIs(text); });
  if (failure != "no exception" && !(value == before)) return "value changed: " + failure;
  return failure;
}

// The hash mix applied independently of the library: the six steps as written out.
inline Mox::U32 referenceMix(Mox::U32 w) {
  w = (w << 15) - w - 1;
  w = w ^ (w >> 12);
  w = w + (w << 2);
  w = w ^ (w >> 4);
  w = w + (w << 3) + (w << 11);
  w = w ^ (w >> 16);
  return w;
}

}  // namespace KorvaTest
