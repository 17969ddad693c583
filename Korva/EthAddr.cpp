#include <Korva/EthAddr.h>

#include <Korva/ValueType.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace Korva {

using Mox::TextIter;

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

// Value of each character as a hexadecimal digit, -1 for the rest: one load per character
// on the parsing path.
constexpr std::array<signed char, 256> makeHexTable() {
  std::array<signed char, 256> table{};
  for (auto& entry : table) entry = -1;
  for (int c = '0'; c <= '9'; ++c) table[c] = static_cast<signed char>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) table[c] = static_cast<signed char>(c - 'a' + 10);
  for (int c = 'A'; c <= 'F'; ++c) table[c] = static_cast<signed char>(c - 'A' + 10);
  return table;
}
constexpr auto hexTable = makeHexTable();

inline int hexValue(char c) noexcept {
  return hexTable[static_cast<unsigned char>(c)];
}

[[noreturn]] void invalidEthAddr() {
  throw Mox::RangeException("Invalid EthAddr");
}

// Reads one field of hexadecimal digits. Any number of digits is allowed, so the value
// saturates just above the largest two-byte field to keep long runs from wrapping.
inline bool readField(TextIter& p, TextIter end, U32& value) noexcept {
  if (p == end) return false;
  int digit = hexValue(*p);
  if (digit < 0) return false;
  U32 v = U32(digit);
  while (++p != end && (digit = hexValue(*p)) >= 0) v = std::min<U32>(v * 16 + U32(digit), 0x10000);
  value = v;
  return true;
}

// Writes bytes as "xx:xx:...", returns the end.
char* bytesToChars(const U8* bytes, unsigned count, char* out) noexcept {
  for (unsigned i = 0; i < count; ++i) {
    if (i) *out++ = ':';
    *out++ = hexDigits[bytes[i] >> 4];
    *out++ = hexDigits[bytes[i] & 0xf];
  }
  return out;
}

void checkIndex(unsigned index, unsigned limit, const char* message) {
  if (index >= limit) throw Mox::RangeException(message);
}

// The form almost every text has: two digits per byte, ':' or '-' between them. Decodes it
// without branching per field (the count is a constant, so the loop unrolls); false sends
// the text to the general reader.
template <unsigned count>
bool readTwoDigitFields(TextIter& it, TextIter end, U8* out) noexcept {
  constexpr size_t length = 3 * count - 1;
  if (size_t(end - it) < length) return false;
  const char separator = it[2];
  if (separator != ':' && separator != '-') return false;
  if (size_t(end - it) > length && hexValue(it[length]) >= 0) return false;
  U8 bytes[count];
  int invalid = 0;
  for (unsigned i = 0; i < count; ++i) {
    const char* field = it + 3 * i;
    const int high = hexValue(field[0]);
    const int low = hexValue(field[1]);
    invalid |= high | low;
    if (i + 1 < count) invalid |= -int(field[2] != separator);
    bytes[i] = U8((high & 0xf) << 4 | (low & 0xf));
  }
  if (invalid < 0) return false;
  std::memcpy(out, bytes, count);
  it += length;
  return true;
}

// The whole reader, without raising: false leaves `it` and `bytes` as they were.
bool readWords(TextIter& it, TextIter end, U8* bytes, unsigned count) noexcept {
  const bool common = count == EthAddr::byteCount
                          ? readTwoDigitFields<EthAddr::byteCount>(it, end, bytes)
                          : readTwoDigitFields<Eui64::byteCount>(it, end, bytes);
  if (common) return true;
  TextIter p = it;
  U32 field = 0;
  // The character after the first field fixes the separator for the whole text.
  if (!readField(p, end, field) || p == end) return false;
  const char separator = *p;
  if (separator != ':' && separator != '-' && separator != '.') return false;
  const bool wide = separator == '.';
  const U32 limit = wide ? 0xffff : 0xff;
  U8 out[8];
  unsigned filled = 0;
  for (;;) {
    if (field > limit) return false;
    if (wide) out[filled++] = U8(field >> 8);
    out[filled++] = U8(field);
    if (filled >= count) break;
    if (p == end || *p != separator) return false;
    ++p;
    if (!readField(p, end, field)) return false;
  }
  std::memcpy(bytes, out, count);
  it = p;
  return true;
}

// The raising reader; internal so that the library's own parsers call it directly.
void readWordsOrThrow(TextIter& it, TextIter end, U8* bytes, unsigned count) {
  if (!readWords(it, end, bytes, count)) invalidEthAddr();
}

enum class WholeText { valid, invalid, trailing };

// Reads all of `text` as a Value's bytes.
template <class Value>
WholeText readWhole(std::string_view text, U8* bytes) noexcept {
  TextIter it = text.data();
  TextIter end = it + text.size();
  if (!readWords(it, end, bytes, Value::byteCount)) return WholeText::invalid;
  return it == end ? WholeText::valid : WholeText::trailing;
}

template <class Value>
std::optional<Value> tryParseWhole(std::string_view text) noexcept {
  U8 bytes[Value::byteCount];
  if (readWhole<Value>(text, bytes) != WholeText::valid) return std::nullopt;
  return Value::fromBuffer(bytes);
}

// Raises "Invalid EthAddr" for what the reader refuses and `trailingMessage` for leftovers.
template <class Value>
void parseWhole(std::string_view text, U8* bytes, const char* trailingMessage) {
  U8 parsed[Value::byteCount];
  switch (readWhole<Value>(text, parsed)) {
    case WholeText::invalid:
      invalidEthAddr();
    case WholeText::trailing:
      throw Mox::RangeException(trailingMessage);
    case WholeText::valid:
      break;
  }
  std::memcpy(bytes, parsed, Value::byteCount);
}

}  // namespace

void sequenceToWords(TextIter& it, TextIter end, U8* bytes, unsigned count) {
  readWordsOrThrow(it, end, bytes, count);
}

// --- EthAddr ---

U16 EthAddr::word(unsigned index) const {
  checkIndex(index, 3, "EthAddr::word: index out of range");
  return rawWord(index);
}

void EthAddr::wordIs(unsigned index, U16 value) {
  checkIndex(index, 3, "EthAddr::word: index out of range");
  bytes_[2 * index] = U8(value >> 8);
  bytes_[2 * index + 1] = U8(value);
}

U8 EthAddr::byte(unsigned index) const {
  checkIndex(index, byteCount, "EthAddr::byte: index out of range");
  return bytes_[index];
}

void EthAddr::byteIs(unsigned index, U8 value) {
  checkIndex(index, byteCount, "EthAddr::byte: index out of range");
  bytes_[index] = value;
}

char* EthAddr::toChars(char* out) const noexcept {
  return bytesToChars(bytes_.data(), byteCount, out);
}

std::string EthAddr::stringValue() const {
  char text[maxTextSize];
  return std::string(text, toChars(text));
}

std::string EthAddr::displayString() const {
  char text[14];
  char* p = text;
  for (unsigned i = 0; i < byteCount; ++i) {
    if (i == 2 || i == 4) *p++ = '.';
    *p++ = hexDigits[bytes_[i] >> 4];
    *p++ = hexDigits[bytes_[i] & 0xf];
  }
  return std::string(text, p);
}

std::optional<EthAddr> EthAddr::tryParse(std::string_view text) noexcept {
  return tryParseWhole<EthAddr>(text);
}

void EthAddr::stringValueIs(std::string_view text) {
  parseWhole<EthAddr>(text, bytes_.data(), "Invalid EthAddr");
}

bool EthAddr::isBroadcast() const noexcept {
  return std::all_of(bytes_.begin(), bytes_.end(), [](U8 b) { return b == 0xff; });
}

Eui64 EthAddr::eui64() const noexcept {
  const U8 bytes[8] = {bytes_[0], bytes_[1], bytes_[2], 0xff,
                       0xff,      bytes_[3], bytes_[4], bytes_[5]};
  return Eui64::fromBuffer(bytes);
}

U32 EthAddr::hash() const noexcept {
  return valueHashMix(U32(rawWord(0) ^ rawWord(1)) << 16 | rawWord(2));
}

std::string valueToStrep(const EthAddr& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, EthAddr* value) {
  U8 bytes[EthAddr::byteCount];
  readWordsOrThrow(it, end, bytes, EthAddr::byteCount);
  *value = EthAddr::fromBuffer(bytes);
}

std::ostream& operator<<(std::ostream& os, const EthAddr& value) {
  char text[EthAddr::maxTextSize];
  return os.write(text, value.toChars(text) - text);
}

EthAddr ipMcastMacAddr(IpAddr group) noexcept {
  const U32 low23 = group.value() & 0x7fffff;
  return EthAddr(0x0100, U16(0x5e00 | low23 >> 16), U16(low23));
}

// --- Eui64 ---

U8 Eui64::byte(Eui64U8Key index) const {
  checkIndex(index, byteCount, "Eui64::byte: index out of range");
  return bytes_[index];
}

void Eui64::byteIs(Eui64U8Key index, U8 value) {
  checkIndex(index, byteCount, "Eui64::byte: index out of range");
  bytes_[index] = value;
}

U16 Eui64::word(unsigned index) const {
  checkIndex(index, 4, "Eui64::word: index out of range");
  return rawWord(index);
}

void Eui64::wordIs(unsigned index, U16 value) {
  checkIndex(index, 4, "Eui64::word: index out of range");
  bytes_[2 * index] = U8(value >> 8);
  bytes_[2 * index + 1] = U8(value);
}

char* Eui64::toChars(char* out) const noexcept {
  return bytesToChars(bytes_.data(), byteCount, out);
}

std::string Eui64::stringValue() const {
  char text[maxTextSize];
  return std::string(text, toChars(text));
}

std::optional<Eui64> Eui64::tryParse(std::string_view text) noexcept {
  return tryParseWhole<Eui64>(text);
}

void Eui64::stringValueIs(std::string_view text) {
  parseWhole<Eui64>(text, bytes_.data(), "Invalid Eui64");
}

U32 Eui64::hash() const noexcept {
  const U32 high = U32(rawWord(0)) << 16 | rawWord(1);
  const U32 low = U32(rawWord(2)) << 16 | rawWord(3);
  return valueHashMix(high ^ valueHashMix(low));
}

std::string valueToStrep(const Eui64& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, Eui64* value) {
  U8 bytes[Eui64::byteCount];
  readWordsOrThrow(it, end, bytes, Eui64::byteCount);
  *value = Eui64::fromBuffer(bytes);
}

std::ostream& operator<<(std::ostream& os, const Eui64& value) {
  char text[Eui64::maxTextSize];
  return os.write(text, value.toChars(text) - text);
}

}  // namespace Korva
