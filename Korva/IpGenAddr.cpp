#include <Korva/IpGenAddr.h>

#include <ostream>

namespace Korva {

namespace {

using Mox::RangeException;
using Mox::TextIter;

constexpr const char* familyNames[] = {"ipunknown", "ipv4", "ipv6"};

}  // namespace

std::string valueToStrep(AddressFamily af) {
  const auto index = static_cast<U32>(af);
  return index < std::size(familyNames) ? familyNames[index] : std::to_string(index);
}

void sequenceToValue(TextIter& it, TextIter end, AddressFamily* af) {
  // "ipv4" before "ipunknown" does not matter: no name is a prefix of another.
  for (U32 i = 0; i < std::size(familyNames); ++i) {
    if (Mox::skipString(it, end, familyNames[i])) {
      *af = static_cast<AddressFamily>(i);
      return;
    }
  }
  throw RangeException("Invalid AddressFamily");
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
  return os << valueToStrep(af);
}

AddressFamily sequenceToAfHint(TextIter it, TextIter end) noexcept {
  for (; it != end; ++it) {
    if (*it == ':') return AddressFamily::ipv6;
    if (*it == '.') return AddressFamily::ipv4;
    if (*it == '/') break;
  }
  return AddressFamily::ipunknown;
}

void IpGenAddr::v4AddrIs(IpAddr address) noexcept {
  af_ = AddressFamily::ipv4;
  area_ = Ip6Addr::fromWords(address.value(), 0, 0, 0);
}

void IpGenAddr::v6AddrIs(const Ip6Addr& address) noexcept {
  af_ = AddressFamily::ipv6;
  area_ = address;
}

U64 IpGenAddr::sortKey() const noexcept {
  switch (af_) {
    case AddressFamily::ipv4:
      return U64(0xffffffff) << 32 | v4Addr().value();
    case AddressFamily::ipv6:
      return U64(area_.word0()) << 32 | area_.word1();
    default:
      return 0;
  }
}

std::string IpGenAddr::bytes() const {
  unsigned char raw[16];
  copyToBuffer(raw);
  return std::string(reinterpret_cast<const char*>(raw), size());
}

void IpGenAddr::copyToBuffer(unsigned char* out) const noexcept {
  if (isV4()) {
    v4Addr().copyToBuffer(out);
  } else {
    area_.copyToBuffer(out);
  }
}

bool IpGenAddr::isUnicast() const noexcept {
  return isV4() ? v4Addr().isUnicast() : area_.isUnicast();
}
bool IpGenAddr::isMulticast() const noexcept {
  return isV4() ? v4Addr().isMulticast() : area_.isMulticast();
}
bool IpGenAddr::isLoopback() const noexcept {
  return isV4() ? v4Addr().isLoopback() : area_.isLoopback();
}
bool IpGenAddr::isLoopbackBase() const noexcept {
  return isV4() ? v4Addr().isLoopbackBase() : area_.isLoopbackBase();
}
bool IpGenAddr::isLinkLocal() const noexcept {
  return isV4() ? v4Addr().isLinkLocal() : area_.isLinkLocal();
}
bool IpGenAddr::isLinkLocalUnicast() const noexcept {
  return isV4() ? v4Addr().isLinkLocalUnicast() : area_.isLinkLocalUnicast();
}
bool IpGenAddr::isUnspecified() const noexcept {
  return isV4() ? v4Addr() == IpAddr() : area_.isUnspecified();
}
bool IpGenAddr::isPimRouters() const noexcept {
  return isV4() ? v4Addr().isPimRouters() : area_.isPimRouters();
}

unsigned IpGenAddr::longestCommonPrefix(const IpGenAddr& other) const noexcept {
  return isV4() ? v4Addr().longestCommonPrefix(other.v4Addr())
                : area_.longestCommonPrefix(other.area_);
}

U32 IpGenAddr::hash() const noexcept {
  switch (af_) {
    case AddressFamily::ipv4:
      return v4Addr().hash();
    case AddressFamily::ipv6:
      return area_.hash();
    default:
      return 0;
  }
}

std::string IpGenAddr::stringValue() const {
  return isV4() ? v4Addr().stringValue() : area_.stringValue();
}

void IpGenAddr::stringValueIs(std::string_view text) {
  switch (sequenceToAfHint(text.data(), text.data() + text.size())) {
    case AddressFamily::ipv4:
      *this = IpAddr(text);
      return;
    case AddressFamily::ipv6:
      *this = Ip6Addr(text);
      return;
    default:
      throw RangeException("Invalid IpGenAddr");
  }
}

std::string valueToStrep(const IpGenAddr& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, IpGenAddr* value) {
  switch (sequenceToAfHint(it, end)) {
    case AddressFamily::ipv4:
      *value = IpAddr(IpAddr::sequenceToValueNbo(it, end));
      return;
    case AddressFamily::ipv6: {
      Ip6Addr address;
      sequenceToValue(it, end, &address);
      *value = address;
      return;
    }
    default:
      throw RangeException("Invalid IpGenAddr");
  }
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& value) {
  return os << value.stringValue();
}

// The family as one byte, then the address's own bytes: none, four or sixteen.
void attrLogWrite(Mox::AttrLogWriter& out, AddressFamily value) {
  out.integer(static_cast<U8>(value));
}

void attrLogRead(Mox::AttrLogReader& in, AddressFamily* value) {
  const U8 family = in.integer<U8>();
  if (family > static_cast<U8>(AddressFamily::ipv6)) {
    throw Mox::AttrLogError("Invalid AddressFamily " + std::to_string(family));
  }
  *value = static_cast<AddressFamily>(family);
}

void attrLogWrite(Mox::AttrLogWriter& out, const IpGenAddr& value) {
  attrLogWrite(out, value.af());
  if (value.isV4()) attrLogWrite(out, value.v4Addr());
  if (value.isV6()) attrLogWrite(out, value.v6Addr());
}

void attrLogRead(Mox::AttrLogReader& in, IpGenAddr* value) {
  switch (Mox::attrLogGet<AddressFamily>(in)) {
    case AddressFamily::ipv4:
      *value = IpGenAddr(Mox::attrLogGet<IpAddr>(in));
      break;
    case AddressFamily::ipv6:
      *value = IpGenAddr(Mox::attrLogGet<Ip6Addr>(in));
      break;
    case AddressFamily::ipunknown:
      *value = IpGenAddr();
      break;
  }
}

}  // namespace Korva
