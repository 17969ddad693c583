#pragma once
// The runtime's text forms. Every value has a runtime text (valueToStrep) and a reader
// (sequenceToValue) that consumes a prefix of a text and leaves the iterator after it.
// Built-in types read and print as the runtime's attribute text does: True/False, decimal
// integers, shortest round-trip doubles, and single-quoted strings with backslash escapes.
// Composite values use the generic form
//   Value('Ns::Type', ** {'a': <text of a>, 'b': <text of b>})
// written with ValueText and read with ValueParser.

#include <Mox/Exception.h>
#include <Mox/Types.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace Mox {

// Reads a run of decimal digits and leaves `it` after it; 0 when there are none. A run too
// long for 63 bits saturates at the largest S64, so callers' range checks still refuse it.
S64 dectol(TextIter& it, TextIter end) noexcept;

// Demands the literal at `it` and steps over it; otherwise raises RangeException
// "Expected <literal>" and leaves `it` where it was.
void needString(TextIter& it, TextIter end, std::string_view literal);

// True (and steps over it) when the literal is next; leaves `it` alone otherwise.
bool skipString(TextIter& it, TextIter end, std::string_view literal) noexcept;

std::string valueToStrep(bool value);
std::string valueToStrep(double value);
std::string valueToStrep(std::string_view value);
inline std::string valueToStrep(const std::string& value) { return valueToStrep(std::string_view(value)); }
inline std::string valueToStrep(const char* value) { return valueToStrep(std::string_view(value)); }
template <class T>
  requires std::is_integral_v<T> && (!std::is_same_v<T, bool>)
std::string valueToStrep(T value) {
  if constexpr (std::is_same_v<T, char>) {
    return valueToStrep(std::string_view(&value, 1));
  } else {
    return std::to_string(value);
  }
}

// Readers of the built-in forms. A malformed or out-of-range text raises RangeException
// and leaves both `it` and the value unchanged.
void sequenceToValue(TextIter& it, TextIter end, bool* value);
void sequenceToValue(TextIter& it, TextIter end, double* value);
void sequenceToValue(TextIter& it, TextIter end, std::string* value);
void sequenceToValue(TextIter& it, TextIter end, char* value);
void sequenceToValue(TextIter& it, TextIter end, U8* value);
void sequenceToValue(TextIter& it, TextIter end, U16* value);
void sequenceToValue(TextIter& it, TextIter end, U32* value);
void sequenceToValue(TextIter& it, TextIter end, U64* value);
void sequenceToValue(TextIter& it, TextIter end, S32* value);
void sequenceToValue(TextIter& it, TextIter end, S64* value);

// Reads one attribute of a composite value: built-in or any type with a sequenceToValue
// found by argument-dependent lookup.
template <class T>
void deserializeAttr(TextIter& it, TextIter end, T* value) {
  sequenceToValue(it, end, value);
}

template <class T>
std::string strepOf(const T& value) {
  return valueToStrep(value);
}

// Whole-text parse: the reader must consume everything, else RangeException `message`.
template <class T>
T valueFromText(std::string_view text, const char* message) {
  T value{};
  TextIter it = text.data();
  TextIter end = it + text.size();
  try {
    deserializeAttr(it, end, &value);
  } catch (const RangeException&) {
    throw RangeException(message);
  }
  if (it != end) throw RangeException(message);
  return value;
}

// Builds "Value('Ns::Type', ** {'a': ..., 'b': ...})".
class ValueText {
 public:
  explicit ValueText(std::string_view type);
  template <class T>
  ValueText& attr(std::string_view name, const T& value) {
    return rawAttr(name, strepOf(value));
  }
  ValueText& rawAttr(std::string_view name, std::string_view text);
  std::string str() const { return text_ + "})"; }

 private:
  std::string text_;
  bool first_ = true;
};

// Reads the same form, attribute by attribute, in order. The caller's iterator moves only
// when finish() succeeds, so a failed read leaves it where it was; read into a temporary so
// the value stays unchanged too:
//   IpFilter read;
//   ValueParser p(it, end, "Korva::IpFilter");
//   p.attr("code", &read.code).attr("jt", &read.jt).finish();
//   *value = read;
class ValueParser {
 public:
  ValueParser(TextIter& it, TextIter end, std::string_view type);
  template <class T>
  ValueParser& attr(std::string_view name, T* value) {
    attrName(name);
    deserializeAttr(cursor_, end_, value);
    return *this;
  }
  void finish();

 private:
  void attrName(std::string_view name);

  TextIter& it_;
  TextIter cursor_;
  TextIter end_;
  bool first_ = true;
};

}  // namespace Mox
