#include <Mox/Text.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace Mox {

namespace {

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Reads a run of digits no greater than `limit` and steps over it. No digit is
// "Invalid <type>", a larger number "<type> out of range"; either leaves `it` unchanged.
U64 readMagnitude(TextIter& it, TextIter end, U64 limit, const char* type) {
  if (it == end || !isDigit(*it)) throw RangeException(std::string("Invalid ") + type);
  TextIter cursor = it;
  U64 n = 0;
  bool overflow = false;
  for (; cursor != end && isDigit(*cursor); ++cursor) {
    unsigned digit = *cursor - '0';
    overflow |= n > (std::numeric_limits<U64>::max() - digit) / 10;
    n = n * 10 + digit;
  }
  if (overflow || n > limit) throw RangeException(std::string(type) + " out of range");
  it = cursor;
  return n;
}

template <class T>
void readUnsigned(TextIter& it, TextIter end, T* value, const char* type) {
  *value = static_cast<T>(readMagnitude(it, end, std::numeric_limits<T>::max(), type));
}

template <class T>
void readSigned(TextIter& it, TextIter end, T* value, const char* type) {
  TextIter cursor = it;
  const bool negative = cursor != end && *cursor == '-';
  if (negative) ++cursor;
  // The most negative value's magnitude is one more than the largest positive value.
  const U64 limit = static_cast<U64>(std::numeric_limits<T>::max()) + negative;
  const U64 magnitude = readMagnitude(cursor, end, limit, type);
  it = cursor;
  *value = static_cast<T>(negative ? 0 - magnitude : magnitude);
}

char escapeFor(char c) noexcept {
  switch (c) {
    case '\n': return 'n';
    case '\t': return 't';
    case '\r': return 'r';
    case '\\': return '\\';
    case '\'': return '\'';
    default: return 0;
  }
}

int hexDigit(char c) noexcept {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads one escape sequence after the backslash; false when it is not one we write.
bool readEscape(TextIter& it, TextIter end, std::string* out) {
  if (it == end) return false;
  char c = *it++;
  switch (c) {
    case 'n': *out += '\n'; return true;
    case 't': *out += '\t'; return true;
    case 'r': *out += '\r'; return true;
    case '\\': *out += '\\'; return true;
    case '\'': *out += '\''; return true;
    case 'x': {
      if (end - it < 2 || hexDigit(it[0]) < 0 || hexDigit(it[1]) < 0) return false;
      *out += static_cast<char>(hexDigit(it[0]) * 16 + hexDigit(it[1]));
      it += 2;
      return true;
    }
    default: return false;
  }
}

}  // namespace

S64 dectol(TextIter& it, TextIter end) noexcept {
  constexpr S64 kMax = std::numeric_limits<S64>::max();
  S64 value = 0;
  for (; it != end && isDigit(*it); ++it) {
    int digit = *it - '0';
    value = value > (kMax - digit) / 10 ? kMax : value * 10 + digit;
  }
  return value;
}

bool skipString(TextIter& it, TextIter end, std::string_view literal) noexcept {
  if (static_cast<size_t>(end - it) < literal.size() ||
      std::string_view(it, literal.size()) != literal) {
    return false;
  }
  it += literal.size();
  return true;
}

void needString(TextIter& it, TextIter end, std::string_view literal) {
  if (!skipString(it, end, literal)) throw RangeException("Expected " + std::string(literal));
}

std::string valueToStrep(bool value) { return value ? "True" : "False"; }

std::string valueToStrep(double value) {
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string valueToStrep(std::string_view value) {
  std::string text = "'";
  for (char c : value) {
    if (char e = escapeFor(c)) {
      text += '\\';
      text += e;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      text += hex;
    } else {
      text += c;
    }
  }
  return text + "'";
}

void sequenceToValue(TextIter& it, TextIter end, bool* value) {
  if (skipString(it, end, "True")) {
    *value = true;
  } else if (skipString(it, end, "False")) {
    *value = false;
  } else {
    throw RangeException("Invalid bool");
  }
}

void sequenceToValue(TextIter& it, TextIter end, double* value) {
  double parsed;
  auto result = std::from_chars(it, end, parsed);
  if (result.ec != std::errc()) throw RangeException("Invalid double");
  it = result.ptr;
  *value = parsed;
}

void sequenceToValue(TextIter& it, TextIter end, std::string* value) {
  TextIter cursor = it;
  if (cursor == end || *cursor != '\'') throw RangeException("Invalid string");
  ++cursor;
  std::string text;
  while (cursor != end && *cursor != '\'') {
    char c = *cursor++;
    if (c != '\\') {
      text += c;
    } else if (!readEscape(cursor, end, &text)) {
      throw RangeException("Invalid string");
    }
  }
  if (cursor == end) throw RangeException("Invalid string");
  it = cursor + 1;
  *value = std::move(text);
}

void sequenceToValue(TextIter& it, TextIter end, char* value) {
  TextIter start = it;
  std::string text;
  sequenceToValue(it, end, &text);
  if (text.size() != 1) {
    it = start;
    throw RangeException("Invalid char");
  }
  *value = text[0];
}

void sequenceToValue(TextIter& it, TextIter end, U8* value) { readUnsigned(it, end, value, "U8"); }
void sequenceToValue(TextIter& it, TextIter end, U16* value) {
  readUnsigned(it, end, value, "U16");
}
void sequenceToValue(TextIter& it, TextIter end, U32* value) {
  readUnsigned(it, end, value, "U32");
}
void sequenceToValue(TextIter& it, TextIter end, U64* value) {
  readUnsigned(it, end, value, "U64");
}
void sequenceToValue(TextIter& it, TextIter end, S32* value) { readSigned(it, end, value, "S32"); }
void sequenceToValue(TextIter& it, TextIter end, S64* value) { readSigned(it, end, value, "S64"); }

ValueText::ValueText(std::string_view type) {
  text_ = "Value('";
  text_ += type;
  text_ += "', ** {";
}

ValueText& ValueText::rawAttr(std::string_view name, std::string_view text) {
  if (!first_) text_ += ", ";
  first_ = false;
  text_ += '\'';
  text_ += name;
  text_ += "': ";
  text_ += text;
  return *this;
}

ValueParser::ValueParser(TextIter& it, TextIter end, std::string_view type)
    : it_(it), cursor_(it), end_(end) {
  needString(cursor_, end_, "Value('");
  needString(cursor_, end_, type);
  needString(cursor_, end_, "', ** {");
}

void ValueParser::attrName(std::string_view name) {
  if (!first_) needString(cursor_, end_, ", ");
  first_ = false;
  needString(cursor_, end_, "'");
  needString(cursor_, end_, name);
  needString(cursor_, end_, "': ");
}

void ValueParser::finish() {
  needString(cursor_, end_, "})");
  it_ = cursor_;
}

}  // namespace Mox
