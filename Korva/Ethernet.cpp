#include <Korva/Ethernet.h>

#include <Mox/Exception.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>

namespace Korva {

namespace {

struct EthTypeEntry {
  EthType value;
  std::string_view name;
};

constexpr std::array<EthTypeEntry, 13> ethTypes{{
    {EthType::ethTypeUnknown, "ethTypeUnknown"},
    {EthType::ethTypeIp, "ethTypeIp"},
    {EthType::ethTypeArpIp, "ethTypeArpIp"},
    {EthType::ethTypeDot1Q, "ethTypeDot1Q"},
    {EthType::ethTypeQinQ, "ethTypeQinQ"},
    {EthType::ethTypeIp6, "ethTypeIp6"},
    {EthType::ethTypePtp, "ethTypePtp"},
    {EthType::ethTypeMpls, "ethTypeMpls"},
    {EthType::ethTypeDot1ah, "ethTypeDot1ah"},
    {EthType::ethTypeDot1ad, "ethTypeDot1ad"},
    {EthType::ethTypeLoopProtect, "ethTypeLoopProtect"},
    {EthType::ethTypeCfm, "ethTypeCfm"},
    {EthType::ethTypeVelora, "ethTypeVelora"},
}};

std::string hexText(U16 number) {
  char text[8];
  int n = std::snprintf(text, sizeof text, "0x%04x", number);
  return std::string(text, size_t(n));
}

bool isNameChar(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

}  // namespace

std::optional<std::string_view> ethTypeName(EthType value) noexcept {
  auto entry = std::find_if(ethTypes.begin(), ethTypes.end(),
                            [value](const EthTypeEntry& e) { return e.value == value; });
  if (entry == ethTypes.end()) return std::nullopt;
  return entry->name;
}

EthType EthTypeInstance(U16 number) {
  EthType value = static_cast<EthType>(number);
  if (!ethTypeName(value)) throw Mox::RangeException("Invalid EthType <" + hexText(number) + ">");
  return value;
}

EthType EthTypeInstance(std::string_view name) {
  auto entry = std::find_if(ethTypes.begin(), ethTypes.end(),
                            [name](const EthTypeEntry& e) { return e.name == name; });
  if (entry == ethTypes.end()) {
    throw Mox::RangeException("Invalid EthType <" + std::string(name) + ">");
  }
  return entry->value;
}

std::string valueToStrep(EthType value) {
  if (auto name = ethTypeName(value)) return std::string(*name);
  return hexText(static_cast<U16>(value));
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, EthType* value) {
  Mox::TextIter nameEnd = std::find_if_not(it, end, isNameChar);
  *value = EthTypeInstance(std::string_view(it, size_t(nameEnd - it)));
  it = nameEnd;
}

std::ostream& operator<<(std::ostream& os, EthType value) {
  return os << valueToStrep(value);
}

// Any 16-bit EtherType is a value of its own, named or not.
void attrLogWrite(Mox::AttrLogWriter& out, EthType value) { out.integer(static_cast<U16>(value)); }

void attrLogRead(Mox::AttrLogReader& in, EthType* value) {
  *value = static_cast<EthType>(in.integer<U16>());
}

}  // namespace Korva
