#include <Korva/Ip6Addr.h>

#include <algorithm>
#include <array>
#include <bit>
#include <ostream>

namespace Korva {

namespace {

using Mox::RangeException;
using Mox::TextIter;

[[noreturn, gnu::cold]] void fail(const char* message) {
  throw RangeException(message);
}

constexpr Ip6Prefix siteLocalPrefix(Ip6Addr(0xfec0, 0, 0, 0, 0, 0, 0, 0), 10);
constexpr Ip6Prefix uniqueLocalPrefix(Ip6Addr(0xfc00, 0, 0, 0, 0, 0, 0, 0), 7);

// The longest text the reader looks at: eight groups with the last two in dotted form.
constexpr size_t maxReadSize = 45;

// What each character is to the reader: a hex digit's value (0..15), a colon, a dot or
// anything else; one table load per character.
enum CharKind : U8 { colonKind = 16, dotKind = 17, otherKind = 18 };

constexpr std::array<U8, 256> makeCharKinds() {
  std::array<U8, 256> table{};
  for (int c = 0; c < 256; ++c) {
    table[c] = c >= '0' && c <= '9'   ? c - '0'
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
               : c == ':'             ? colonKind
               : c == '.'             ? dotKind
                                      : otherKind;
  }
  return table;
}

constexpr std::array<U8, 256> charKinds = makeCharKinds();

unsigned charKind(char c) noexcept {
  return charKinds[static_cast<unsigned char>(c)];
}
bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// The leading-bits mask of word `i` (0..3) of a 128-bit mask of `len` bits.
U32 wordMask(U32 len, int i) noexcept {
  const U32 start = 32u * static_cast<U32>(i);
  return len <= start ? 0u : detail::leadingBitsMask(len - start);
}

std::array<U32, 4> hostWords(const Ip6Addr& a) noexcept {
  return {a.word0(), a.word1(), a.word2(), a.word3()};
}

bool firstBitsEqual(const Ip6Addr& a, const Ip6Addr& b, U32 len) noexcept {
  const std::array<U32, 4> x = hostWords(a), y = hostWords(b);
  for (int i = 0; i < 4; ++i) {
    if ((x[i] ^ y[i]) & wordMask(len, i)) return false;
  }
  return true;
}

// Reads the dotted IPv4 tail: four decimal numbers of up to three digits, 0..255.
U32 readDottedTail(TextIter& p, TextIter end) {
  U32 value = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (p == end || *p != '.') fail("Ip6Addr: expected '.'");
      ++p;
    }
    unsigned number = 0;
    int digits = 0;
    for (; p != end && isDigit(*p); ++p) {
      if (++digits > 3) fail("Ip6Addr: too many consecutive decimal digits");
      number = number * 10 + (*p - '0');
    }
    if (digits == 0) fail("Ip6Addr: decimal digit expected");
    if (number > 255) fail("Ip6Addr: decimal value too large");
    value = value << 8 | number;
  }
  return value;
}

// Reads one group of one to four hex digits. Four digits cannot exceed 65535, so the
// digit count is the only bound to check.
U16 readHexGroup(TextIter& p, TextIter end) {
  unsigned value = 0;
  int digits = 0;
  for (unsigned h; p != end && (h = charKind(*p)) < colonKind; ++p) {
    if (++digits > 4) fail("Ip6Addr: too many consecutive hex digits");
    value = value << 4 | h;
  }
  if (digits == 0) fail("Ip6Addr: hex digit expected");
  return static_cast<U16>(value);
}

// The groups read, with the zero groups of a "::" (before group `gapAt`) put in.
Ip6Addr assembleGroups(const U16* groups, int count, int gapAt) noexcept {
  U32 g[8] = {};
  const int zeros = 8 - count;
  for (int i = 0; i < count; ++i) g[gapAt >= 0 && i >= gapAt ? i + zeros : i] = groups[i];
  return Ip6Addr::fromWords(g[0] << 16 | g[1], g[2] << 16 | g[3], g[4] << 16 | g[5],
                            g[6] << 16 | g[7]);
}

// The full reader: every form, and the exact text of every failure.
Ip6Addr readCheckedIp6Addr(TextIter& it, TextIter end) {
  // Pre-scan: find where the address text ends, count its colons and look for a dotted tail.
  const TextIter start = it;
  const TextIter limit = static_cast<size_t>(end - start) > maxReadSize ? start + maxReadSize : end;
  TextIter textEnd = start;
  TextIter tailStart = start;  // after the last colon
  int colons = 0;
  int tailDots = 0;
  for (; textEnd != limit; ++textEnd) {
    const unsigned kind = charKind(*textEnd);
    if (kind < colonKind) continue;
    if (kind == colonKind) {
      ++colons;
      tailDots = 0;
      tailStart = textEnd + 1;
    } else if (kind == dotKind) {
      ++tailDots;
    } else {
      break;
    }
  }
  const bool dottedTail = tailDots == 3;
  if (dottedTail) ++colons;  // the dotted part fills two groups
  if (colons > 7) fail("Ip6Addr: too many colons");

  // Main pass. With at most seven colons no more than eight groups can be read, and "::"
  // always stands for at least one zero group.
  U16 groups[8] = {};
  int count = 0;
  int gapAt = -1;  // index of the first group after "::"
  TextIter p = start;
  if (p != textEnd && *p == ':') {
    if (p + 1 == textEnd || p[1] != ':') fail("Ip6Addr: leading hex digit expected");
    gapAt = 0;
    p += 2;
  }
  while (!(gapAt == count && p == textEnd)) {
    if (dottedTail && p == tailStart) {
      const U32 v4 = readDottedTail(p, textEnd);
      groups[count++] = static_cast<U16>(v4 >> 16);
      groups[count++] = static_cast<U16>(v4);
      break;
    }
    groups[count++] = readHexGroup(p, textEnd);
    if (count == 8 || p == textEnd) break;
    if (*p != ':') fail("Ip6Addr: ':' expected");
    ++p;
    if (p != textEnd && *p == ':') {
      if (gapAt >= 0) fail("Ip6Addr: only one '::' allowed");
      gapAt = count;
      ++p;
    }
  }
  if (gapAt < 0 && count < 8) fail("Ip6Addr: incomplete ipv6 address");
  it = p;
  return assembleGroups(groups, count, gapAt);
}

// The reader for the common form, in one pass: hex groups and at most one "::", no dotted
// tail, ending at the end of the text or at a character that cannot belong to an address.
// Whatever it accepts the full reader accepts with the same result (such a text has at most
// 39 characters, seven colons and no dot); anything else it leaves, without raising, to the
// full reader, which also words every failure.
bool readPlainIp6Addr(TextIter& it, TextIter end, Ip6Addr* address) noexcept {
  U16 groups[8];
  int count = 0;
  int gapAt = -1;
  int colons = 0;
  TextIter p = it;
  if (p != end && *p == ':') {
    if (end - p < 2 || p[1] != ':') return false;
    gapAt = 0;
    colons = 2;
    p += 2;
  }
  while (!(gapAt == count && (p == end || charKind(*p) == otherKind))) {
    unsigned value = 0;
    int digits = 0;
    for (unsigned h; p != end && (h = charKind(*p)) < colonKind; ++p) {
      if (++digits > 4) return false;
      value = value << 4 | h;
    }
    if (digits == 0) return false;
    groups[count++] = static_cast<U16>(value);
    if (p == end) break;
    const unsigned kind = charKind(*p);
    if (kind == otherKind) break;
    if (kind != colonKind || count == 8) return false;  // a dot, or more after eight groups
    ++p;
    ++colons;
    if (p != end && *p == ':') {
      if (gapAt >= 0) return false;
      gapAt = count;
      ++colons;
      ++p;
    }
  }
  if (colons > 7 || (gapAt < 0 && count < 8)) return false;
  it = p;
  *address = assembleGroups(groups, count, gapAt);
  return true;
}

Ip6Addr readIp6Addr(TextIter& it, TextIter end) {
  Ip6Addr address;
  return readPlainIp6Addr(it, end, &address) ? address : readCheckedIp6Addr(it, end);
}

char* writeHex(char* out, U16 value) noexcept {
  static constexpr char digits[] = "0123456789abcdef";
  const int count = value == 0 ? 1 : (std::bit_width(value) + 3) / 4;
  for (int i = count - 1; i >= 0; --i) *out++ = digits[(value >> (4 * i)) & 0xf];
  return out;
}

void checkIndex(unsigned i, unsigned count, const char* message) {
  if (i >= count) fail(message);
}

}  // namespace

// --- Ip6Addr ---

U8 Ip6Addr::u8(unsigned i) const {
  checkIndex(i, 16, "Ip6Addr::u8: index out of range");
  return static_cast<U8>(word(i / 4) >> (24 - 8 * (i % 4)));
}

U16 Ip6Addr::u16(unsigned i) const {
  checkIndex(i, 8, "Ip6Addr::u16: index out of range");
  return static_cast<U16>(word(i / 2) >> (i % 2 ? 0 : 16));
}

U32 Ip6Addr::u32(unsigned i) const {
  checkIndex(i, 4, "Ip6Addr::u32: index out of range");
  return word(i);
}

U64 Ip6Addr::u64(unsigned i) const {
  checkIndex(i, 2, "Ip6Addr::u64: index out of range");
  return U64(word(2 * i)) << 32 | word(2 * i + 1);
}

void Ip6Addr::u8Is(unsigned i, U8 value) {
  checkIndex(i, 16, "Ip6Addr::u8Is: index out of range");
  const unsigned shift = 24 - 8 * (i % 4);
  wordIs(i / 4, (word(i / 4) & ~(0xffu << shift)) | U32(value) << shift);
}

void Ip6Addr::u16Is(unsigned i, U16 value) {
  checkIndex(i, 8, "Ip6Addr::u16Is: index out of range");
  const unsigned shift = i % 2 ? 0 : 16;
  wordIs(i / 2, (word(i / 2) & ~(0xffffu << shift)) | U32(value) << shift);
}

void Ip6Addr::u32Is(unsigned i, U32 value) {
  checkIndex(i, 4, "Ip6Addr::u32Is: index out of range");
  wordIs(i, value);
}

void Ip6Addr::u64Is(unsigned i, U64 value) {
  checkIndex(i, 2, "Ip6Addr::u64Is: index out of range");
  wordIs(2 * i, static_cast<U32>(value >> 32));
  wordIs(2 * i + 1, static_cast<U32>(value));
}

bool Ip6Addr::isSiteLocal() const noexcept {
  return siteLocalPrefix.contains(*this);
}
bool Ip6Addr::isUniqueLocal() const noexcept {
  return uniqueLocalPrefix.contains(*this);
}
bool Ip6Addr::isPimRouters() const noexcept {
  return *this == ip6AddrPimRouters;
}

Ip6Addr Ip6Addr::solicitedNodeMulticastAddr() const noexcept {
  return fromWords(0xff020000, 0, 1, 0xff000000 | (word3() & 0xffffff));
}

Ip6Addr Ip6Addr::validLlUnicastAddress() const {
  if (!isLinkLocalUnicast2()) fail("Not an address that belongs to subnet fe80::/10");
  return fromWords(0xfe800000, 0, word2(), word3());
}

Ip6Addr Ip6Addr::ip6AddrMaskedByLength(U32 len) const noexcept {
  Ip6Addr masked;
  for (int i = 0; i < 4; ++i) masked.wordIs(i, word(i) & wordMask(len, i));
  return masked;
}

unsigned Ip6Addr::longestCommonPrefix(const Ip6Addr& other) const noexcept {
  for (int i = 0; i < 4; ++i) {
    if (const U32 diff = word(i) ^ other.word(i)) {
      return 32 * i + static_cast<unsigned>(std::countl_zero(diff));
    }
  }
  return 128;
}

U32 Ip6Addr::hash() const noexcept {
  U32 h = 0;
  for (int i = 0; i < 4; ++i) h = valueHashMix(h ^ word(i));
  return h;
}

char* Ip6Addr::toChars(char* out) const noexcept {
  U16 groups[8];
  for (int i = 0; i < 4; ++i) {
    groups[2 * i] = static_cast<U16>(word(i) >> 16);
    groups[2 * i + 1] = static_cast<U16>(word(i));
  }
  // The longest run of zero groups, at least two long; the leftmost of equal runs.
  int runStart = -1;
  int runSize = 1;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && groups[j] == 0) ++j;
    if (j - i > runSize) {
      runStart = i;
      runSize = j - i;
    }
    i = j;
  }
  for (int i = 0; i < 8; ++i) {
    if (i == runStart) {
      *out++ = ':';
      *out++ = ':';
      i += runSize - 1;
      continue;
    }
    if (i > 0 && i != runStart + runSize) *out++ = ':';
    out = writeHex(out, groups[i]);
  }
  return out;
}

std::string Ip6Addr::stringValue() const {
  char text[maxTextSize];
  return std::string(text, toChars(text));
}

namespace {

// The rare texts the plain reader leaves (dotted tails, failures) go to the full reader.
std::optional<Ip6Addr> readWholeCheckedIp6Addr(TextIter it, TextIter end) noexcept {
  try {
    Ip6Addr address = readCheckedIp6Addr(it, end);
    if (it == end) return address;
  } catch (const RangeException&) {
  }
  return std::nullopt;
}

}  // namespace

std::optional<Ip6Addr> Ip6Addr::tryParse(std::string_view text) noexcept {
  TextIter it = text.data();
  TextIter end = it + text.size();
  Ip6Addr address;
  if (readPlainIp6Addr(it, end, &address)) {
    if (it == end) return address;
    return std::nullopt;
  }
  return readWholeCheckedIp6Addr(it, end);
}

void Ip6Addr::stringValueIs(std::string_view text) {
  if (text == "::") {
    *this = Ip6Addr();
    return;
  }
  TextIter it = text.data();
  TextIter end = it + text.size();
  const Ip6Addr address = readIp6Addr(it, end);
  if (it != end) fail("Ip6Addr: unexpected trailing characters");
  *this = address;
}

std::string valueToStrep(const Ip6Addr& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, Ip6Addr* value) {
  *value = readIp6Addr(it, end);
}

std::ostream& operator<<(std::ostream& os, const Ip6Addr& value) {
  char text[Ip6Addr::maxTextSize];
  return os.write(text, value.toChars(text) - text);
}

// --- Ip6AddrWithMask ---

namespace {

// An address, then optionally "/" and a length below 129; 128 without the slash.
Ip6AddrWithMask readIp6AddrWithMask(TextIter& it, TextIter end) {
  TextIter p = it;
  const Ip6Addr address = readIp6Addr(p, end);
  U32 len = 128;
  if (p != end && *p == '/') {
    ++p;
    if (p == end || !isDigit(*p)) fail("Ip6AddrWithMask: prefix size expected");
    const Mox::S64 value = Mox::dectol(p, end);
    if (value >= 129) fail("Ip6AddrWithMask: prefix too long");
    len = static_cast<U32>(value);
  }
  it = p;
  return Ip6AddrWithMask(address, len);
}

std::string slashText(const Ip6Addr& address, U32 len) {
  char text[Ip6Addr::maxTextSize + 1 + 10];
  char* end = address.toChars(text);
  *end++ = '/';
  return std::string(text, detail::writeDecimal(end, len));
}

}  // namespace

bool Ip6AddrWithMask::contains(const Ip6Addr& a) const noexcept {
  return len_ <= 128 && firstBitsEqual(a, address_, len_);
}

bool Ip6AddrWithMask::validAsPrefix() const noexcept {
  // Bytes past the sixteenth are never looked at, so whole-byte lengths above 128 pass.
  if (len_ >= 128) return len_ % 8 == 0;
  return address_.ip6AddrMaskedByLength(len_) == address_;
}

bool Ip6AddrWithMask::overlaps(const Ip6AddrWithMask& other) const noexcept {
  return firstBitsEqual(address_, other.address_, std::min(len_, other.len_));
}

Ip6AddrWithMask Ip6AddrWithMask::subnet() const noexcept {
  return Ip6AddrWithMask(address_.ip6AddrMaskedByLength(len_), len_);
}

std::string Ip6AddrWithMask::stringValue() const {
  return slashText(address_, len_);
}

void Ip6AddrWithMask::stringValueIs(std::string_view text) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  const Ip6AddrWithMask value = readIp6AddrWithMask(it, end);
  if (it != end) fail("Ip6AddrWithMask: unexpected trailing characters");
  *this = value;
}

std::weak_ordering operator<=>(const Ip6AddrWithMask& a, const Ip6AddrWithMask& b) noexcept {
  if (a.len_ != b.len_) {
    const bool aLonger = a.len_ > b.len_;
    const Ip6AddrWithMask& shorter = aLonger ? b : a;
    const Ip6AddrWithMask& longer = aLonger ? a : b;
    if (shorter.contains(longer.address_)) {
      return aLonger ? std::weak_ordering::less : std::weak_ordering::greater;
    }
  }
  return a.address_ <=> b.address_;
}

std::string valueToStrep(const Ip6AddrWithMask& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, Ip6AddrWithMask* value) {
  *value = readIp6AddrWithMask(it, end);
}

std::ostream& operator<<(std::ostream& os, const Ip6AddrWithMask& value) {
  return os << value.stringValue();
}

// --- Ip6Prefix ---

Ip6Addr Ip6Prefix::subnetHost(const Ip6Addr& host) const {
  if (!host.ip6AddrMaskedByLength(len()).isZero()) fail("Host address too long");
  return Ip6Addr::fromWords(address().word0() | host.word0(), address().word1() | host.word1(),
                            address().word2() | host.word2(), address().word3() | host.word3());
}

void sequenceToValue(TextIter& it, TextIter end, Ip6Prefix* value) {
  const Ip6AddrWithMask read = readIp6AddrWithMask(it, end);
  *value = Ip6Prefix(read.address(), read.len());
}

// --- Ip6PrefixLen, Ip6AddrU8Key ---

void Ip6PrefixLen::valueIs(unsigned value) {
  if (value > invalid) {
    fail("Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed");
  }
  value_ = static_cast<U8>(value);
}

std::string valueToStrep(const Ip6PrefixLen& value) {
  return std::to_string(value.value());
}

void sequenceToValue(TextIter& it, TextIter end, Ip6PrefixLen* value) {
  TextIter p = it;
  U8 number = 0;
  Mox::sequenceToValue(p, end, &number);
  value->valueIs(number);
  it = p;
}

std::ostream& operator<<(std::ostream& os, const Ip6PrefixLen& value) {
  return os << unsigned(value.value());
}

std::string valueToStrep(const Ip6AddrU8Key& value) {
  return std::to_string(value.value());
}

void sequenceToValue(TextIter& it, TextIter end, Ip6AddrU8Key* value) {
  U8 number = 0;
  Mox::sequenceToValue(it, end, &number);
  *value = Ip6AddrU8Key(number);
}

std::ostream& operator<<(std::ostream& os, const Ip6AddrU8Key& value) {
  return os << unsigned(value.value());
}

// --- Ip6AddrWithFullMask ---

Ip6PrefixLen Ip6AddrWithFullMask::prefixLen() const noexcept {
  unsigned len = 0;
  int i = 0;
  while (i < 4 && mask_.u32(i) == ~0u) {
    len += 32;
    ++i;
  }
  if (i < 4) {
    // The first word that is not all ones must be a run of ones from its top bit (or zero);
    // every word after it must be zero.
    const U32 w = mask_.u32(i);
    const int ones = std::popcount(w);
    if (32 - std::countr_zero(w) != ones) return Ip6PrefixLen(Ip6PrefixLen::invalid);
    len += static_cast<unsigned>(ones);
    for (++i; i < 4; ++i) {
      if (mask_.u32(i) != 0) return Ip6PrefixLen(Ip6PrefixLen::invalid);
    }
  }
  return Ip6PrefixLen(len);
}

U32 Ip6AddrWithFullMask::hash() const noexcept {
  const U32 hashes[2] = {address_.hash(), mask_.hash()};
  return murmurHash3(hashes, sizeof hashes, 0);
}

std::string Ip6AddrWithFullMask::stringValue() const {
  const Ip6PrefixLen len = prefixLen();
  if (len.isValid()) return slashText(address_, len.value());
  char text[2 * Ip6Addr::maxTextSize + 1];
  char* end = address_.toChars(text);
  *end++ = '/';
  return std::string(text, mask_.toChars(end));
}

namespace {

Ip6AddrWithFullMask readIp6AddrWithFullMask(TextIter& it, TextIter end) {
  TextIter p = it;
  const Ip6Addr address = readIp6Addr(p, end);
  if (p == end || *p != '/') fail("Ip6AddrWithFullMask: mask expected");
  ++p;
  const Ip6Addr mask = readIp6Addr(p, end);
  it = p;
  return Ip6AddrWithFullMask(address, mask);
}

}  // namespace

void Ip6AddrWithFullMask::stringValueIs(std::string_view text) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  const Ip6AddrWithFullMask value = readIp6AddrWithFullMask(it, end);
  if (it != end) fail("Ip6AddrWithFullMask: unexpected trailing characters");
  *this = value;
}

std::string valueToStrep(const Ip6AddrWithFullMask& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, Ip6AddrWithFullMask* value) {
  *value = readIp6AddrWithFullMask(it, end);
}

std::ostream& operator<<(std::ostream& os, const Ip6AddrWithFullMask& value) {
  return os << value.stringValue();
}

// Sixteen bytes in network order; lengths as U32, a full mask as sixteen bytes.
void attrLogWrite(Mox::AttrLogWriter& out, const Ip6Addr& value) {
  for (unsigned i = 0; i < 4; ++i) out.integer(value.u32(i));
}

void attrLogRead(Mox::AttrLogReader& in, Ip6Addr* value) {
  const U32 w0 = in.integer<U32>(), w1 = in.integer<U32>(), w2 = in.integer<U32>();
  *value = Ip6Addr::fromWords(w0, w1, w2, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrWithMask& value) {
  attrLogWrite(out, value.address());
  out.integer(value.len());
}

void attrLogRead(Mox::AttrLogReader& in, Ip6AddrWithMask* value) {
  const auto address = Mox::attrLogGet<Ip6Addr>(in);
  *value = Ip6AddrWithMask(address, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const Ip6PrefixLen& value) { out.integer(value.value()); }

void attrLogRead(Mox::AttrLogReader& in, Ip6PrefixLen* value) { value->valueIs(in.integer<U8>()); }

void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrU8Key& value) { out.integer(value.value()); }

void attrLogRead(Mox::AttrLogReader& in, Ip6AddrU8Key* value) {
  *value = Ip6AddrU8Key(in.integer<U8>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const Ip6AddrWithFullMask& value) {
  attrLogWrite(out, value.address());
  attrLogWrite(out, value.mask());
}

void attrLogRead(Mox::AttrLogReader& in, Ip6AddrWithFullMask* value) {
  const auto address = Mox::attrLogGet<Ip6Addr>(in);
  *value = Ip6AddrWithFullMask(address, Mox::attrLogGet<Ip6Addr>(in));
}

}  // namespace Korva
