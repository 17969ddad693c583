#pragma once
// EtherType values that the header views read and write, with their names as text.

#include <Korva/Types.h>
#include <Mox/AttrLog.h>

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Korva {

enum class EthType : U16 {
  ethTypeUnknown = 0x0000,
  ethTypeIp = 0x0800,
  ethTypeArpIp = 0x0806,
  ethTypeDot1Q = 0x8100,
  ethTypeQinQ = 0x9100,
  ethTypeIp6 = 0x86DD,
  ethTypePtp = 0x88F7,
  ethTypeMpls = 0x8847,
  ethTypeDot1ah = 0x88E7,
  ethTypeDot1ad = 0x88A8,
  ethTypeLoopProtect = 0x88B7,
  ethTypeCfm = 0x8902,
  ethTypeVelora = 0xD28B,  // the system's own EtherType
};

// Both-way lookups between enumerators and their numbers or names. An unknown number or
// name raises Mox::RangeException "Invalid EthType <text>".
EthType EthTypeInstance(U16 number);
EthType EthTypeInstance(std::string_view name);
// The enumerator's name, or nothing for a number that is not one of them.
std::optional<std::string_view> ethTypeName(EthType value) noexcept;

// Text is the enumerator's name; a number outside the enumeration prints as 0x%04x.
std::string valueToStrep(EthType value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, EthType* value);
std::ostream& operator<<(std::ostream& os, EthType value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, EthType value);
void attrLogRead(Mox::AttrLogReader& in, EthType* value);

}  // namespace Korva
