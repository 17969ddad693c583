#include <Korva/EthAddr.h>

#include <Korva/ValueHash.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace Korva {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

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
constexpr auto kHexTable = makeHexTable();

inline int hexValue(char c) noexcept {
  return kHexTable[static_cast<unsigned char>(c)];
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

// Writes bytes as "xx:xx:...", returns the number of characters.
size_t bytesToChars(const U8* bytes, unsigned count, char* out) noexcept {
  char* p = out;
  for (unsigned i = 0; i < count; ++i) {
    if (i) *p++ = ':';
    *p++ = kHexDigits[bytes[i] >> 4];
    *p++ = kHexDigits[bytes[i] & 0xf];
  }
  return size_t(p - out);
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

// The whole reader; internal so that the library's own parsers call it directly.
void readWords(TextIter& it, TextIter end, U8* bytes, unsigned count) {
  const bool common = count == EthAddr::kBytes ? readTwoDigitFields<EthAddr::kBytes>(it, end, bytes)
                                               : readTwoDigitFields<Eui64::kBytes>(it, end, bytes);
  if (common) return;
  TextIter p = it;
  U32 field = 0;
  // The character after the first field fixes the separator for the whole text.
  if (!readField(p, end, field) || p == end) invalidEthAddr();
  const char separator = *p;
  if (separator != ':' && separator != '-' && separator != '.') invalidEthAddr();
  const bool wide = separator == '.';
  const U32 limit = wide ? 0xffff : 0xff;
  U8 out[8];
  unsigned filled = 0;
  for (;;) {
    if (field > limit) invalidEthAddr();
    if (wide) out[filled++] = U8(field >> 8);
    out[filled++] = U8(field);
    if (filled >= count) break;
    if (p == end || *p != separator) invalidEthAddr();
    ++p;
    if (!readField(p, end, field)) invalidEthAddr();
  }
  std::memcpy(bytes, out, count);
  it = p;
}

template <class Value>
void parseWhole(std::string_view text, U8* bytes, unsigned count, const char* trailingMessage) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  U8 parsed[Value::kBytes];
  readWords(it, end, parsed, count);
  if (it != end) throw Mox::RangeException(trailingMessage);
  std::memcpy(bytes, parsed, count);
}

}  // namespace

void sequenceToWords(TextIter& it, TextIter end, U8* bytes, unsigned count) {
  readWords(it, end, bytes, count);
}

// --- EthAddr ---

EthAddr EthAddr::fromBuffer(const unsigned char* bytes) noexcept {
  EthAddr addr;
  std::memcpy(addr.bytes_.data(), bytes, kBytes);
  return addr;
}

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
  checkIndex(index, kBytes, "EthAddr::byte: index out of range");
  return bytes_[index];
}

void EthAddr::byteIs(unsigned index, U8 value) {
  checkIndex(index, kBytes, "EthAddr::byte: index out of range");
  bytes_[index] = value;
}

size_t EthAddr::toChars(char* out) const noexcept {
  return bytesToChars(bytes_.data(), kBytes, out);
}

std::string EthAddr::stringValue() const {
  char text[17];
  return std::string(text, toChars(text));
}

std::string EthAddr::displayString() const {
  char text[14];
  char* p = text;
  for (unsigned i = 0; i < kBytes; ++i) {
    if (i == 2 || i == 4) *p++ = '.';
    *p++ = kHexDigits[bytes_[i] >> 4];
    *p++ = kHexDigits[bytes_[i] & 0xf];
  }
  return std::string(text, p);
}

void EthAddr::stringValueIs(std::string_view text) {
  parseWhole<EthAddr>(text, bytes_.data(), kBytes, "Invalid EthAddr");
}

bool EthAddr::isBroadcast() const noexcept {
  return std::all_of(bytes_.begin(), bytes_.end(), [](U8 b) { return b == 0xff; });
}

Eui64 EthAddr::eui64() const noexcept {
  const U8 bytes[8] = {bytes_[0], bytes_[1], bytes_[2], 0xff,
                       0xff,      bytes_[3], bytes_[4], bytes_[5]};
  return Eui64::fromBuffer(bytes);
}

void EthAddr::copyToBuffer(unsigned char* out) const noexcept {
  std::memcpy(out, bytes_.data(), kBytes);
}

U32 EthAddr::hash() const noexcept {
  return valueHashMix(U32(rawWord(0) ^ rawWord(1)) << 16 | rawWord(2));
}

std::string valueToStrep(const EthAddr& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, EthAddr* value) {
  U8 bytes[EthAddr::kBytes];
  readWords(it, end, bytes, EthAddr::kBytes);
  *value = EthAddr::fromBuffer(bytes);
}

std::ostream& operator<<(std::ostream& os, const EthAddr& value) {
  char text[17];
  return os.write(text, std::streamsize(value.toChars(text)));
}

EthAddr ipMcastMacAddr(IpAddr group) noexcept {
  const U32 low23 = group.value() & 0x7fffff;
  return EthAddr(0x0100, U16(0x5e00 | low23 >> 16), U16(low23));
}

// --- Eui64 ---

Eui64 Eui64::fromBuffer(const unsigned char* bytes) noexcept {
  Eui64 id;
  std::memcpy(id.bytes_.data(), bytes, kBytes);
  return id;
}

U8 Eui64::byte(Eui64U8Key index) const {
  checkIndex(index, kBytes, "Eui64::byte: index out of range");
  return bytes_[index];
}

void Eui64::byteIs(Eui64U8Key index, U8 value) {
  checkIndex(index, kBytes, "Eui64::byte: index out of range");
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

size_t Eui64::toChars(char* out) const noexcept {
  return bytesToChars(bytes_.data(), kBytes, out);
}

std::string Eui64::stringValue() const {
  char text[23];
  return std::string(text, toChars(text));
}

void Eui64::stringValueIs(std::string_view text) {
  parseWhole<Eui64>(text, bytes_.data(), kBytes, "Invalid Eui64");
}

void Eui64::copyToBuffer(unsigned char* out) const noexcept {
  std::memcpy(out, bytes_.data(), kBytes);
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
  U8 bytes[Eui64::kBytes];
  readWords(it, end, bytes, Eui64::kBytes);
  *value = Eui64::fromBuffer(bytes);
}

std::ostream& operator<<(std::ostream& os, const Eui64& value) {
  char text[23];
  return os.write(text, std::streamsize(value.toChars(text)));
}

}  // namespace Korva
