#include <Korva/Ethernet.h>

#include <gtest/gtest.h>

#include <sstream>

#include "ValueTestUtil.h"

namespace Korva {
namespace {

using KorvaTest::failureText;

TEST(EthTypeLookup, NumbersAndNamesBothWays) {
  const std::pair<const char*, U16> table[] = {
      {"ethTypeUnknown", 0x0000}, {"ethTypeIp", 0x0800},          {"ethTypeArpIp", 0x0806},
      {"ethTypeDot1Q", 0x8100},   {"ethTypeQinQ", 0x9100},        {"ethTypeIp6", 0x86DD},
      {"ethTypePtp", 0x88F7},     {"ethTypeMpls", 0x8847},        {"ethTypeDot1ah", 0x88E7},
      {"ethTypeDot1ad", 0x88A8},  {"ethTypeLoopProtect", 0x88B7}, {"ethTypeCfm", 0x8902},
      {"ethTypeVelora", 0xD28B}};
  for (auto [name, number] : table) {
    EthType byNumber = EthTypeInstance(number);
    EXPECT_EQ(static_cast<U16>(byNumber), number) << name;
    EXPECT_EQ(EthTypeInstance(name), byNumber) << name;
    EXPECT_EQ(valueToStrep(byNumber), name);
  }
  std::ostringstream os;
  os << EthType::ethTypeIp6 << ' ' << static_cast<EthType>(0x1234);
  EXPECT_EQ(os.str(), "ethTypeIp6 0x1234");
}

TEST(EthTypeText, SequenceReadsANameOrLeavesAllAlone) {
  const std::string text = "ethTypeMpls, next";
  Mox::TextIter it = text.data();
  EthType value = EthType::ethTypeUnknown;
  sequenceToValue(it, text.data() + text.size(), &value);
  EXPECT_EQ(value, EthType::ethTypeMpls);
  EXPECT_EQ(std::string(it), ", next");
  const std::string bad = "ethTypeIp4";
  it = bad.data();
  EXPECT_THROW(sequenceToValue(it, bad.data() + bad.size(), &value), Mox::RangeException);
  EXPECT_EQ(value, EthType::ethTypeMpls);
  EXPECT_EQ(it, bad.data());
}

TEST(EthTypeFailures, UnknownNumbersAndNames) {
  EXPECT_EQ(failureText([] { (void)EthTypeInstance(U16(0x1234)); }), "Invalid EthType <0x1234>");
  EXPECT_EQ(failureText([] { (void)EthTypeInstance("ethTypeIpx"); }),
            "Invalid EthType <ethTypeIpx>");
}

}  // namespace
}  // namespace Korva
