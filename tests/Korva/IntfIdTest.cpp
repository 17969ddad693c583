#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Korva/IntfIdTestSupport.h"
#include "ValueTestUtil.h"

namespace {

using Korva::GenericIntfId;
using Korva::IntfId;
using Korva::U32;
using Korva::U64;

class IntfIdTest : public ::testing::Test {
 protected:
  void SetUp() override { mgr = KorvaTest::intfIdMgr(); }
  Korva::IntfIdMgr* mgr = nullptr;
};

TEST_F(IntfIdTest, EmptyNameIsNullAndFalse) {
  EXPECT_EQ(IntfId("").value(), 0x00000000FFFFFFFFull);
  EXPECT_EQ(IntfId(""), IntfId());
  EXPECT_FALSE(IntfId());
  EXPECT_TRUE(IntfId(U64(0)));
  EXPECT_EQ(Korva::valueToStrep(IntfId()), "''");
}

// One row per message; a failed parse keeps the value it had.
TEST_F(IntfIdTest, ParseFailuresNameTheInput) {
  const IntfId before("Ethernet7");
  // The prefix is matched exactly, and separators must sit between numbers.
  for (const std::string name : {"Foo1", "ethernet1", "ETHERNET1", "Ethernet1/", "Ethernet1.",
                                 "Ethernet/1", "Ethernet1//2", "Ethernet1.2.3", "Ethernet1.2/3"}) {
    EXPECT_EQ(KorvaTest::parseFailure(name, before), "Invalid IntfId <" + name + ">");
  }
  const std::pair<const char*, const char*> cases[] = {
      {"Ethernet1/2/3/4/5", "Invalid IntfId, too many parts <Ethernet1/2/3/4/5>"},
      {"Vlan1.5", "Invalid IntfId <Vlan1.5> - . not expected"},
      {"Ethernet", "Invalid IntfId, zero parts not valid <Ethernet>"},
      {"Ethernet1/2/3/4", "Invalid IntfId too few/many parts <Ethernet1/2/3/4>"},
      {"Management1/2/3", "Invalid IntfId too few/many parts <Management1/2/3>"},
      {"Loopback", "Invalid IntfId too few/many parts <Loopback>"},
      {"Ethernet1024", "Invalid IntfId, part too large <Ethernet1024>"},
      {"Ethernet1.65536", "Invalid IntfId, part too large <Ethernet1.65536>"},
      {"Vlan4096", "Invalid IntfId, part too large <Vlan4096>"},
      {"Vlan99999999999999999999", "Invalid IntfId, part too large <Vlan99999999999999999999>"},
      {"Vlan0", "Invalid IntfId, zero not valid <Vlan0>"},
      {"Ethernet1/0", "Invalid IntfId, zero not valid <Ethernet1/0>"},
      {"Ethernet0/1", "Invalid IntfId, zero not valid <Ethernet0/1>"},
  };
  for (const auto& [name, message] : cases) {
    EXPECT_EQ(KorvaTest::parseFailure(name, before), message);
  }
}

TEST_F(IntfIdTest, SubInterfaceZeroAndLeadingZerosAreAccepted) {
  const std::pair<const char*, const char*> cases[] = {
      {"Ethernet1.0", "Ethernet1"},
      {"Vlan0010", "Vlan10"},
      {"Vlan0000000000000000000000010", "Vlan10"},
      {"Loopback0", "Loopback0"},
      {"Ethernet1023/1023/1023.65535", "Ethernet1023/1023/1023.65535"}};
  for (const auto& [name, printed] : cases) EXPECT_EQ(IntfId(name).stringValue(), printed);
}

// A random identifier of a layout, in the form the parser produces: the first `count`
// parts set, the rest zero; parts that may not be zero are not.
IntfId randomId(const Korva::IntfIdTrie::Layout& layout, unsigned index, std::mt19937_64& rng) {
  IntfId id(U64(index / 4) << 25 | U64(index % 4) << 62);
  const unsigned count = std::uniform_int_distribution<unsigned>(
      std::max<unsigned>(layout.minParts, 1), layout.maxParts)(rng);
  for (unsigned p = 0; p < count; ++p) {
    const bool zeroOk = layout.zeroAllowed[p] || (p == 0 && layout.hasDotPart);
    // Small values are the common case; exercise them as often as the full range.
    const U32 top = rng() & 1 ? layout.mask[p] : std::min<U32>(layout.mask[p], 12);
    const U32 v = std::uniform_int_distribution<U32>(zeroOk ? 0 : 1, top)(rng);
    id = GenericIntfId::partIs(id, p, v);
  }
  return id;
}

TEST_F(IntfIdTest, PrintThenParseGivesTheSameIdForEveryLayout) {
  const Korva::IntfIdTrie* trie = mgr->trie();
  std::vector<unsigned> layouts;
  for (unsigned i = 0; i < Korva::IntfIdTrie::layoutCount; ++i) {
    if (trie->layout(i)) layouts.push_back(i);
  }
  ASSERT_GE(layouts.size(), 12u);  // the ten standard types and the test plugin's two
  std::mt19937_64 rng(20261121);
  for (int round = 0; round < 120000; ++round) {
    const unsigned index = layouts[round % layouts.size()];
    const Korva::IntfIdTrie::Layout& layout = *trie->layout(index);
    const IntfId id = randomId(layout, index, rng);
    const std::string name = id.stringValue();
    ASSERT_EQ(IntfId(name), id) << name;
    ASSERT_TRUE(name.starts_with(layout.prefix)) << name;
    // Every short name the library prints reads back; the test plugin's "Rc" is a word no
    // name converter knows.
    if (!layout.prefix.starts_with("Recirc")) {
      ASSERT_EQ(Korva::stringToVexIntf(id.shortName()), id) << id.shortName();
    }
    IntfId read;
    const std::string strep = Korva::valueToStrep(id);
    Mox::TextIter it = strep.data();
    Korva::sequenceToValue(it, strep.data() + strep.size(), &read);
    ASSERT_EQ(read, id);
    ASSERT_EQ(it, strep.data() + strep.size());
  }
}

TEST_F(IntfIdTest, SerialisedFormIsTheQuotedLongName) {
  const IntfId id("Ethernet3/1.100");
  EXPECT_EQ(Korva::valueToStrep(id), "'Ethernet3/1.100'");
  std::ostringstream out;
  out << id;
  EXPECT_EQ(out.str(), "Ethernet3/1.100");
  const std::string text = "'Vlan7', rest";
  Mox::TextIter it = text.data();
  IntfId read;
  Korva::sequenceToValue(it, text.data() + text.size(), &read);
  EXPECT_EQ(read, IntfId("Vlan7"));
  EXPECT_EQ(std::string(it), ", rest");
}

TEST_F(IntfIdTest, DeserialisingBadTextKeepsValueAndPosition) {
  for (const std::string text : {"Vlan7'", "'Vlan7", "'Vlan0'", "", "'Bogus1'"}) {
    IntfId value("Loopback3");
    Mox::TextIter it = text.data();
    EXPECT_EQ(KorvaTest::failureText(
                  [&] { Korva::sequenceToValue(it, text.data() + text.size(), &value); }),
              "Error deserializing IntfId")
        << text;
    EXPECT_EQ(it, text.data()) << text;
    EXPECT_EQ(value, IntfId("Loopback3")) << text;
  }
}

TEST_F(IntfIdTest, OrderIsUnsignedOverTheWholeValue) {
  EXPECT_LT(IntfId(0x00000001FFFFFFFFull), IntfId(0x0000000200000000ull));  // upper word first
  EXPECT_LT(IntfId(0x0000000200000000ull), IntfId(0x8000000000000000ull));  // unsigned
  EXPECT_LT(IntfId(1ull), IntfId(0x80000000ull));  // then the lower word, unsigned
}

// Jenkins' one-at-a-time hash over the little-endian bytes, worked out apart from the library.
TEST_F(IntfIdTest, HashIsOneAtATimeOverLittleEndianBytes) {
  EXPECT_EQ(std::hash<IntfId>()(IntfId(1ull)), 0x98adb391u);
  EXPECT_EQ(IntfId(0x0123456789abcdefull).hash(), 0xb5eb1e68u);
  EXPECT_EQ(IntfId("Ethernet3/1").hash(), 0xc3d03647u);
  EXPECT_EQ(IntfId(~0ull).hash(), 0x39229c66u);
  static_assert(IntfId(U64(0)).hash() == 0);
}

}  // namespace
