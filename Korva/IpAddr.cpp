#include <Korva/IpAddr.h>

#include <algorithm>
#include <array>
#include <limits>
#include <ostream>

namespace Korva {

namespace {

using Mox::RangeException;
using Mox::TextIter;

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

[[noreturn, gnu::cold]] void throwInvalidIpAddr() {
  throw RangeException("Invalid IpAddr");
}

// The decimal text of every octet value, so printing an octet is one table load and copy.
struct OctetText {
  char digits[3];
  U8 size;
};

constexpr std::array<OctetText, 256> makeOctetTexts() {
  std::array<OctetText, 256> table{};
  for (unsigned n = 0; n < 256; ++n) {
    OctetText& t = table[n];
    if (n >= 100) t.digits[t.size++] = char('0' + n / 100);
    if (n >= 10) t.digits[t.size++] = char('0' + n / 10 % 10);
    t.digits[t.size++] = char('0' + n % 10);
  }
  return table;
}

constexpr std::array<OctetText, 256> octetTexts = makeOctetTexts();

// Address, "/", then the length or (for a non-contiguous mask) a second address.
std::string slashText(IpAddr address, U32 len) {
  char text[IpAddr::maxTextSize + 1 + 10];
  char* end = address.toChars(text);
  *end++ = '/';
  end = detail::writeDecimal(end, len);
  return std::string(text, end);
}

// Host bits of `address` after the first `len` (below 32) bits are all clear.
bool hostBitsClear(IpAddr address, U32 len) noexcept {
  return (address.value() & ~detail::leadingBitsMask(len)) == 0;
}

// Whether an address and a length read from text form a prefix; the null-prefix length is
// not accepted from text.
bool parsedPrefixValid(IpAddr address, U32 len) noexcept {
  return len == 32 || (len < 32 && hostBitsClear(address, len));
}

// Whole-text parse with `read`; raises `trailingMessage` when text is left over. The target
// is assigned only on success.
template <class T, class Read>
void parseWhole(std::string_view text, T* target, Read read, const char* trailingMessage) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  T value = read(it, end);
  if (it != end) throw RangeException(trailingMessage);
  *target = value;
}

}  // namespace

// --- IpAddr ---

char* detail::writeDecimal(char* out, U32 n) noexcept {
  char digits[10];
  char* p = digits + sizeof digits;
  do {
    *--p = char('0' + n % 10);
    n /= 10;
  } while (n != 0);
  const size_t size = digits + sizeof digits - p;
  std::memcpy(out, p, size);
  return out + size;
}

namespace {

// The digit's value, or something above 9 for any other character.
unsigned digitValue(char c) noexcept {
  return static_cast<unsigned>(static_cast<unsigned char>(c)) - '0';
}

// What the quiet readers give for no digit or a value above 255.
constexpr U32 invalidOctet = 256;

// The readers below come in two instances: `raise` throws "Invalid IpAddr" at the failing
// character (the path stringValueIs takes), the other reports the failure and lets the
// caller decide. Keeping the raising instance free of failure checks keeps it as fast.
template <bool raise>
[[gnu::always_inline]] inline U32 octetFailure() {
  if constexpr (raise) throwInvalidIpAddr();
  return invalidOctet;
}

// Reads one octet's digit run as Mox::dectol would (leading zeros included) and fails above
// 255. Inlined because this is the hot path: with four characters to spare, up to three
// digits are combined without a branch per digit, since random octet lengths would
// mispredict one.
template <bool raise>
U32 readOctet(TextIter& p, TextIter end) noexcept(!raise) {
  if (p == end || digitValue(*p) > 9) return octetFailure<raise>();
  U32 n;
  if (end - p >= 4) {
    const unsigned d0 = digitValue(p[0]), d1 = digitValue(p[1]), d2 = digitValue(p[2]);
    const bool two = d1 <= 9;
    const bool three = two && d2 <= 9;
    n = three ? d0 * 100 + d1 * 10 + d2 : two ? d0 * 10 + d1 : d0;
    p += 1 + two + three;
  } else {
    n = digitValue(*p++);
  }
  for (; p != end && digitValue(*p) <= 9; ++p) {
    if (n > 255) return octetFailure<raise>();
    n = n * 10 + digitValue(*p);
  }
  if (n > 255) return octetFailure<raise>();
  return n;
}

// The dotted-quad reader: the network-order word, leaving `it` after the fourth octet.
// Without `raise`, false on failure leaves `it` where it was.
template <bool raise>
bool readDottedQuad(TextIter& it, TextIter end, U32* valueNbo) noexcept(!raise) {
  TextIter p = it;
  U32 value = 0;
  for (int octet = 0;; ++octet) {
    const U32 n = readOctet<raise>(p, end);
    if (!raise && n == invalidOctet) return false;
    value = value << 8 | n;
    if (octet == 3) break;
    if (p == end || *p != '.') {
      if constexpr (raise) throwInvalidIpAddr();
      return false;
    }
    ++p;
  }
  it = p;
  *valueNbo = detail::swapNbo32(value);
  return true;
}

// The raising reader; internal so the library's own callers reach it without going through
// the exported symbol.
U32 readDottedQuad(TextIter& it, TextIter end) {
  U32 valueNbo;
  readDottedQuad<true>(it, end, &valueNbo);
  return valueNbo;
}

}  // namespace

U32 IpAddr::sequenceToValueNbo(TextIter& it, TextIter end) {
  return readDottedQuad(it, end);
}

std::optional<IpAddr> IpAddr::tryParse(std::string_view text) noexcept {
  TextIter it = text.data();
  TextIter end = it + text.size();
  U32 valueNbo;
  if (!readDottedQuad<false>(it, end, &valueNbo) || it != end) return std::nullopt;
  return IpAddr(valueNbo);
}

void IpAddr::stringValueIs(std::string_view text) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  const U32 valueNbo = readDottedQuad(it, end);
  if (it != end) throwInvalidIpAddr();
  valueNbo_ = valueNbo;
}

char* IpAddr::toChars(char* out) const noexcept {
  const U32 v = value();
  for (int shift = 24;; shift -= 8) {
    const OctetText& octet = octetTexts[(v >> shift) & 0xff];
    std::memcpy(out, octet.digits, 3);
    out += octet.size;
    if (shift == 0) return out;
    *out++ = '.';
  }
}

std::string IpAddr::stringValue() const {
  char text[maxTextSize];
  return std::string(text, toChars(text));
}

std::string valueToStrep(IpAddr value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, IpAddr* value) {
  *value = IpAddr(readDottedQuad(it, end));
}

std::ostream& operator<<(std::ostream& os, IpAddr value) {
  char text[IpAddr::maxTextSize];
  return os.write(text, value.toChars(text) - text);
}

U32 sequenceToPrefixLen(TextIter& it, TextIter end) {
  if (end - it < 2 || it[0] != '/' || !isDigit(it[1])) {
    throw RangeException("premature end of Prefix type");
  }
  ++it;
  const Mox::S64 len = Mox::dectol(it, end);
  return len > std::numeric_limits<U32>::max() ? std::numeric_limits<U32>::max()
                                               : static_cast<U32>(len);
}

// --- IpAddrWithMask ---

namespace {

IpAddrWithMask readIpAddrWithMask(TextIter& it, TextIter end) {
  TextIter p = it;
  const IpAddr address(readDottedQuad(p, end));
  const U32 len = sequenceToPrefixLen(p, end);
  it = p;
  return IpAddrWithMask(address, len);
}

}  // namespace

std::string IpAddrWithMask::stringValue() const {
  return slashText(address_, len_);
}

void IpAddrWithMask::stringValueIs(std::string_view text) {
  parseWhole(text, this, readIpAddrWithMask, "Invalid IpAddrWithMask");
}

std::string valueToStrep(const IpAddrWithMask& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, IpAddrWithMask* value) {
  *value = readIpAddrWithMask(it, end);
}

std::ostream& operator<<(std::ostream& os, const IpAddrWithMask& value) {
  return os << value.stringValue();
}

// --- Prefix ---

Prefix::Prefix(IpAddr address, U32 len) : address_(address), len_(len) {
  if (!validAsPrefix()) throw RangeException("Prefix::validAsPrefix != true not allowed");
}

bool Prefix::validAsPrefix() const noexcept {
  // The null-prefix length passes unchecked: it is the "no prefix" marker.
  return len_ == nullPrefixLen || parsedPrefixValid(address_, len_);
}

bool Prefix::contains(IpAddr a) const noexcept {
  const U32 mask = detail::leadingBitsMask(len_);
  return ((a.value() ^ address_.value()) & mask) == 0;
}

IpAddr Prefix::subnetHost(IpAddr host) const {
  if ((host.value() & detail::leadingBitsMask(len_)) != 0) {
    throw RangeException("Host address too long");
  }
  return IpAddr(address_.valueNbo() | host.valueNbo());
}

std::string Prefix::stringValue() const {
  return slashText(address_, len_);
}

namespace {

// Reads address and length and makes the prefix test, but not the end-of-text test.
Prefix readPrefix(TextIter& it, TextIter end) {
  TextIter p = it;
  const IpAddr address(readDottedQuad(p, end));
  const U32 len = sequenceToPrefixLen(p, end);
  if (!parsedPrefixValid(address, len)) {
    throw RangeException("Invalid Prefix - non-zero after prefixlen");
  }
  it = p;
  return Prefix(address, len);
}

}  // namespace

void Prefix::stringValueIs(std::string_view text) {
  parseWhole(text, this, readPrefix, "Invalid Prefix - non-zero after prefixlen");
}

std::weak_ordering operator<=>(const Prefix& a, const Prefix& b) noexcept {
  // Lengths compare as signed here, so the null-prefix length counts as no common bits.
  const Mox::S32 common = std::min(static_cast<Mox::S32>(a.len_), static_cast<Mox::S32>(b.len_));
  const U32 mask = common <= 0 ? 0u : detail::leadingBitsMask(static_cast<U32>(common));
  if (((a.address_.value() ^ b.address_.value()) & mask) == 0) return b.len_ <=> a.len_;
  return a.address_ <=> b.address_;
}

std::string valueToStrep(const Prefix& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, Prefix* value) {
  *value = readPrefix(it, end);
}

std::ostream& operator<<(std::ostream& os, const Prefix& value) {
  return os << value.stringValue();
}

// --- IpAddrWithFullMask ---

std::string IpAddrWithFullMask::stringValue() const {
  // A zero mask counts as contiguous, of length 0.
  if ((mask_ | (mask_ - 1)) == ~0u) {
    const U32 len = 32 - static_cast<U32>(std::countr_zero(mask_));
    return slashText(IpAddr::fromHostOrder(address_.value() & mask_), len);
  }
  char text[2 * IpAddr::maxTextSize + 1];
  char* end = address_.toChars(text);
  *end++ = '/';
  end = IpAddr::fromHostOrder(mask_).toChars(end);
  return std::string(text, end);
}

namespace {

constexpr const char* fullMaskType = "Korva::IpAddrWithFullMask";

IpAddrWithFullMask readIpAddrWithFullMask(TextIter& it, TextIter end) {
  TextIter p = it;
  IpAddr address;
  U32 mask = 0;
  Mox::ValueParser(p, end, fullMaskType).attr("address", &address).attr("mask", &mask).finish();
  it = p;
  return IpAddrWithFullMask(address, mask);
}

}  // namespace

void IpAddrWithFullMask::stringValueIs(std::string_view text) {
  parseWhole(text, this, readIpAddrWithFullMask, "Invalid IpAddrWithFullMask");
}

std::string valueToStrep(const IpAddrWithFullMask& value) {
  return Mox::ValueText(fullMaskType)
      .attr("address", value.address())
      .attr("mask", value.mask())
      .str();
}

void sequenceToValue(TextIter& it, TextIter end, IpAddrWithFullMask* value) {
  *value = readIpAddrWithFullMask(it, end);
}

std::ostream& operator<<(std::ostream& os, const IpAddrWithFullMask& value) {
  return os << valueToStrep(value);
}


// The address as four octets in network order; lengths and masks as U32.
void attrLogWrite(Mox::AttrLogWriter& out, IpAddr value) { out.integer(value.value()); }

void attrLogRead(Mox::AttrLogReader& in, IpAddr* value) {
  *value = IpAddr::fromHostOrder(in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const IpAddrWithMask& value) {
  attrLogWrite(out, value.address());
  out.integer(value.len());
}

void attrLogRead(Mox::AttrLogReader& in, IpAddrWithMask* value) {
  const auto address = Mox::attrLogGet<IpAddr>(in);
  *value = IpAddrWithMask(address, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const Prefix& value) {
  attrLogWrite(out, value.address());
  out.integer(value.len());
}

void attrLogRead(Mox::AttrLogReader& in, Prefix* value) {
  const auto address = Mox::attrLogGet<IpAddr>(in);
  *value = Prefix(address, in.integer<U32>());
}

void attrLogWrite(Mox::AttrLogWriter& out, const IpAddrWithFullMask& value) {
  attrLogWrite(out, value.address());
  out.integer(value.mask());
}

void attrLogRead(Mox::AttrLogReader& in, IpAddrWithFullMask* value) {
  const auto address = Mox::attrLogGet<IpAddr>(in);
  *value = IpAddrWithFullMask(address, in.integer<U32>());
}

}  // namespace Korva
