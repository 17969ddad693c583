#pragma once
// Properties shared by the fuzz targets. A property that does not hold prints what failed
// and aborts, which libFuzzer reports as a crash with the input that caused it.
//
// A new target is one file here: copy the nearest one, keep its LLVMFuzzerTestOneInput and
// put seed inputs in corpus/<file name without .cpp>/. Inputs that once failed stay there
// too, so every run replays them first.

#include <Mox/Exception.h>
#include <Mox/Text.h>
#include <Mox/Types.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>

namespace KorvaFuzz {

[[noreturn]] inline void fail(std::string_view property, std::string_view input) {
  std::fprintf(stderr, "property failed: %.*s\ninput: <%.*s>\n", int(property.size()),
               property.data(), int(input.size()), input.data());
  std::abort();
}

inline void require(bool holds, std::string_view property, std::string_view input) {
  if (!holds) fail(property, input);
}

// The texts a failed read may raise; each entry is a prefix, since some quote the input.
using FailureTexts = std::initializer_list<std::string_view>;

inline void requireFailureText(const Mox::RangeException& e, FailureTexts texts,
                               std::string_view input) {
  const std::string_view what = e.what();
  for (std::string_view text : texts) {
    if (what.starts_with(text)) return;
  }
  fail("unexpected failure text: " + std::string(what), input);
}

// Reads `text` whole with stringValueIs. A value read prints as a text that reads back to
// the same value; a failed read raises one of `texts` and leaves the value as it was.
template <class T>
void checkWholeText(std::string_view text, const T& before, FailureTexts texts) {
  T value = before;
  try {
    value.stringValueIs(std::string(text));  // some readers take a std::string
  } catch (const Mox::RangeException& e) {
    requireFailureText(e, texts, text);
    require(value == before, "failed read changed the value", text);
    return;
  }
  T again = before;
  const std::string printed = value.stringValue();
  try {
    again.stringValueIs(printed);
  } catch (const Mox::RangeException& e) {
    fail("printed text does not read back: " + printed + " (" + e.what() + ")", text);
  }
  require(again == value, "printed text reads back another value: " + printed, text);
}

// Reads a prefix of `text` with sequenceToValue (the runtime's reader). A read value's
// runtime text reads back to it whole; a failed read leaves the iterator and the value.
template <class T>
void checkRuntimeText(std::string_view text, const T& before, FailureTexts texts) {
  using Mox::sequenceToValue;  // the built-in readers; value types are found by their namespace
  using Mox::TextIter;
  using Mox::valueToStrep;
  const TextIter begin = text.data();
  const TextIter end = begin + text.size();
  TextIter it = begin;
  T value = before;
  try {
    sequenceToValue(it, end, &value);
  } catch (const Mox::RangeException& e) {
    requireFailureText(e, texts, text);
    require(it == begin, "failed read moved the iterator", text);
    require(value == before, "failed read changed the value", text);
    return;
  }
  require(it > begin && it <= end, "read left the iterator outside the text", text);
  const std::string printed = valueToStrep(value);
  TextIter at = printed.data();
  T again = before;
  try {
    sequenceToValue(at, printed.data() + printed.size(), &again);
  } catch (const Mox::RangeException& e) {
    fail("runtime text does not read back: " + printed + " (" + e.what() + ")", text);
  }
  require(again == value && at == printed.data() + printed.size(),
          "runtime text reads back another value: " + printed, text);
}

// Both readers of one value type.
template <class T>
void checkTexts(std::string_view text, const T& before, FailureTexts texts) {
  checkWholeText(text, before, texts);
  checkRuntimeText(text, before, texts);
}

}  // namespace KorvaFuzz
