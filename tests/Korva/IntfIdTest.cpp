#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>
#include <Mox/Exception.h>

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>
#include <unordered_set>

#include "Korva/IntfIdTestSupport.h"

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

std::string parseError(std::string_view name) {
  try {
    IntfId id(name);
    return "parsed as " + id.stringValue();
  } catch (const Mox::RangeException& e) {
    return e.what();
  }
}

// --- null value and truth ---

TEST_F(IntfIdTest, EmptyNameIsNullAndFalse) {
  IntfId empty("");
  EXPECT_EQ(empty.value(), 0x00000000FFFFFFFFull);
  EXPECT_EQ(empty, IntfId());
  EXPECT_FALSE(empty);
  EXPECT_TRUE(IntfId(U64(0)));
  EXPECT_TRUE(IntfId("Ethernet1"));
  EXPECT_EQ(IntfId().stringValue(), "");
  EXPECT_EQ(Korva::valueToStrep(IntfId()), "''");
}

// --- parse failures, one per message ---

TEST_F(IntfIdTest, ParseFailuresNameTheInput) {
  EXPECT_EQ(parseError("Foo1"), "Invalid IntfId <Foo1>");
  EXPECT_EQ(parseError("ethernet1"), "Invalid IntfId <ethernet1>");  // prefix is exact
  EXPECT_EQ(parseError("ETHERNET1"), "Invalid IntfId <ETHERNET1>");
  EXPECT_EQ(parseError("Ethernet1/"), "Invalid IntfId <Ethernet1/>");
  EXPECT_EQ(parseError("Ethernet1."), "Invalid IntfId <Ethernet1.>");
  EXPECT_EQ(parseError("Ethernet/1"), "Invalid IntfId <Ethernet/1>");
  EXPECT_EQ(parseError("Ethernet1//2"), "Invalid IntfId <Ethernet1//2>");
  EXPECT_EQ(parseError("Ethernet1.2.3"), "Invalid IntfId <Ethernet1.2.3>");
  EXPECT_EQ(parseError("Ethernet1.2/3"), "Invalid IntfId <Ethernet1.2/3>");
  EXPECT_EQ(parseError("Ethernet1/2/3/4/5"), "Invalid IntfId, too many parts <Ethernet1/2/3/4/5>");
  EXPECT_EQ(parseError("Vlan1.5"), "Invalid IntfId <Vlan1.5> - . not expected");
  EXPECT_EQ(parseError("Ethernet"), "Invalid IntfId, zero parts not valid <Ethernet>");
  EXPECT_EQ(parseError("Ethernet1/2/3/4"), "Invalid IntfId too few/many parts <Ethernet1/2/3/4>");
  EXPECT_EQ(parseError("Management1/2/3"), "Invalid IntfId too few/many parts <Management1/2/3>");
  EXPECT_EQ(parseError("Loopback"), "Invalid IntfId too few/many parts <Loopback>");
  EXPECT_EQ(parseError("Ethernet1024"), "Invalid IntfId, part too large <Ethernet1024>");
  EXPECT_EQ(parseError("Ethernet1.65536"), "Invalid IntfId, part too large <Ethernet1.65536>");
  EXPECT_EQ(parseError("Vlan4096"), "Invalid IntfId, part too large <Vlan4096>");
  EXPECT_EQ(parseError("Vlan99999999999999999999"),
            "Invalid IntfId, part too large <Vlan99999999999999999999>");
  EXPECT_EQ(parseError("Vlan0"), "Invalid IntfId, zero not valid <Vlan0>");
  EXPECT_EQ(parseError("Ethernet1/0"), "Invalid IntfId, zero not valid <Ethernet1/0>");
  EXPECT_EQ(parseError("Ethernet0/1"), "Invalid IntfId, zero not valid <Ethernet0/1>");
}

TEST_F(IntfIdTest, SubInterfaceZeroAndLeadingZerosAreAccepted) {
  EXPECT_EQ(IntfId("Ethernet1.0"), IntfId("Ethernet1"));
  EXPECT_EQ(IntfId("Ethernet1.0").stringValue(), "Ethernet1");
  EXPECT_EQ(IntfId("Vlan0010").stringValue(), "Vlan10");
  EXPECT_EQ(IntfId("Vlan0000000000000000000000010").stringValue(), "Vlan10");
  EXPECT_EQ(IntfId("Loopback0").stringValue(), "Loopback0");
  EXPECT_EQ(IntfId("Ethernet1023/1023/1023.65535").stringValue(), "Ethernet1023/1023/1023.65535");
}

TEST_F(IntfIdTest, FailedParseKeepsTheValue) {
  IntfId id("Ethernet7");
  EXPECT_THROW(id.stringValueIs("Ethernet7/"), Mox::RangeException);
  EXPECT_EQ(id.stringValue(), "Ethernet7");
  id.stringValueIs("Port-Channel4.2");
  EXPECT_EQ(id.stringValue(), "Port-Channel4.2");
}

// --- print / parse round trip over every registered layout ---

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
  for (unsigned i = 0; i < Korva::IntfIdTrie::kLayouts; ++i) {
    if (trie->layout(i)) layouts.push_back(i);
  }
  ASSERT_GE(layouts.size(), 12u);  // the ten standard types and the test plugin's two
  std::mt19937_64 rng(20261121);
  const std::set<std::string> shortReadable = {"Ethernet", "Port-Channel", "Management", "Loopback",
                                               "Vlan",     "Vxlan",        "Tunnel"};
  for (int round = 0; round < 120000; ++round) {
    const unsigned index = layouts[round % layouts.size()];
    const Korva::IntfIdTrie::Layout& layout = *trie->layout(index);
    const IntfId id = randomId(layout, index, rng);
    const std::string name = id.stringValue();
    ASSERT_EQ(IntfId(name), id) << name;
    ASSERT_TRUE(name.starts_with(layout.prefix)) << name;
    if (shortReadable.contains(layout.prefix)) {
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

// --- serialised form ---

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
    try {
      Korva::sequenceToValue(it, text.data() + text.size(), &value);
      ADD_FAILURE() << text << " was read";
    } catch (const Mox::RangeException& e) {
      EXPECT_STREQ(e.what(), "Error deserializing IntfId") << text;
    }
    EXPECT_EQ(it, text.data()) << text;
    EXPECT_EQ(value, IntfId("Loopback3")) << text;
  }
}

// --- order and hash ---

TEST_F(IntfIdTest, OrderIsUnsignedOverTheWholeValue) {
  const IntfId low(0x00000001FFFFFFFFull);
  const IntfId high(0x0000000200000000ull);
  const IntfId top(0x8000000000000000ull);
  EXPECT_LT(low, high);  // the upper word decides first
  EXPECT_LT(high, top);  // unsigned, not signed
  EXPECT_LE(low, low);
  EXPECT_GE(top, low);
  EXPECT_GT(IntfId(2ull), IntfId(1ull));  // then the lower word, unsigned
  EXPECT_LT(IntfId(1ull), IntfId(0x80000000ull));
  EXPECT_NE(low, high);
}

// The published one-at-a-time hash, written out over a byte array.
U32 oneAtATime(const unsigned char* key, size_t length) {
  U32 hash = 0;
  for (size_t i = 0; i < length; ++i) {
    hash += key[i];
    hash += hash << 10;
    hash ^= hash >> 6;
  }
  hash += hash << 3;
  hash ^= hash >> 11;
  hash += hash << 15;
  return hash;
}

TEST_F(IntfIdTest, HashIsOneAtATimeOverLittleEndianBytes) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 1000; ++i) {
    const U64 value = rng();
    unsigned char bytes[8];
    for (int b = 0; b < 8; ++b) bytes[b] = static_cast<unsigned char>(value >> (8 * b));
    ASSERT_EQ(IntfId(value).hash(), oneAtATime(bytes, 8));
    ASSERT_EQ(std::hash<IntfId>()(IntfId(value)), oneAtATime(bytes, 8));
  }
  static_assert(IntfId(U64(0)).hash() == 0);
}

TEST_F(IntfIdTest, HashSpreadsRealIdentifiers) {
  std::unordered_set<U32> hashes;
  for (int slot = 1; slot <= 32; ++slot) {
    for (int port = 1; port <= 64; ++port) {
      hashes.insert(IntfId("Ethernet" + std::to_string(slot) + "/" + std::to_string(port)).hash());
    }
  }
  EXPECT_EQ(hashes.size(), 32u * 64u);
}

}  // namespace
