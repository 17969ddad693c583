// Interface ids: the layouts and their plugins, text both ways over every layout, and the
// name converters and natural order built on them.
#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "ValueTestUtil.h"

namespace {

using Korva::GenericIntfId;
using Korva::IntfId;
using Korva::IntfIdPart;
using Korva::ShortPrefix;
using Korva::U32;
using Korva::U64;
using Korva::U8;
using KorvaTest::failureText;

// The manager as every test here sees it: initialised once per process, with the test
// plugins of KORVA_TEST_PLUGIN_DIR loaded beside the built-in types.
Korva::IntfIdMgr* intfIdMgr() {
  setenv("KORVA_PLUGIN_PATH", KORVA_TEST_PLUGIN_DIR, 0);
  return Korva::IntfIdMgr::ensureInitialized();
}

class IntfIdTest : public ::testing::Test {
 protected:
  void SetUp() override { mgr = intfIdMgr(); }
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

TEST_F(IntfIdTest, SerialisedFormIsTheQuotedLongNameAndBadTextChangesNothing) {
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
  // Bad text keeps the value and the position.
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

// --- layouts, plugins and registration ---

TEST(IntfIdDescValues, KeysAndShortPrefixRefuseOutOfRange) {
  EXPECT_EQ(failureText([] { Korva::IntfIdPartKey(4); }),
            "IntfIdPartKey::value < IntfIdPartKey::min or > IntfIdPartKey::max not allowed");
  EXPECT_EQ(failureText([] { Korva::SubIntfIdKey(3); }),
            "SubIntfIdKey::value < SubIntfIdKey::min or > SubIntfIdKey::max not allowed");
  EXPECT_EQ(ShortPrefix("Tun00").bytes(), 5u);
  EXPECT_EQ(failureText([] { ShortPrefix("Tunnel"); }), "ShortPrefix::bytes > 5 not allowed");
  EXPECT_EQ(failureText([] { Korva::IntfIdDesc(127, "Bad", 1); }),
            "IntfIdDesc::typeId > Expr @IntfIdDesc.mox:66 not allowed");
}

TEST(IntfIdDescValues, PartTextRoundTrips) {
  const IntfIdPart part(10, true, '.');
  const std::string text = Korva::valueToStrep(part);
  EXPECT_EQ(text,
            "Value('Korva::IntfIdPart', ** {'size': 10, 'zeroBased': True, 'separator': '.'})");
  IntfIdPart read;
  Mox::TextIter it = text.data();
  Korva::sequenceToValue(it, text.data() + text.size(), &read);
  EXPECT_EQ(read, part);
  EXPECT_EQ(it, text.data() + text.size());
}

using IntfIdDescTest = IntfIdTest;

TEST_F(IntfIdDescTest, GenericFieldsFollowTheLayout) {
  const IntfId id("Ethernet3/1.100");
  EXPECT_EQ(GenericIntfId::typeId(id), 1);
  EXPECT_EQ(GenericIntfId::subType(id), 0);
  EXPECT_EQ(GenericIntfId::part(id, 0), 100u);
  EXPECT_EQ(GenericIntfId::part(id, 2), 3u);
  EXPECT_EQ(GenericIntfId::part(id, 3), 0u);
  EXPECT_EQ(GenericIntfId::parts(id), 3);
  EXPECT_EQ(GenericIntfId::parts(IntfId("Ethernet3/1")), 2);  // a zero ".n" is skipped
  EXPECT_EQ(GenericIntfId::parts(IntfId("Loopback0")), 1);    // zero-based parts count
  EXPECT_EQ(GenericIntfId::partIs(id, 2, 7).stringValue(), "Ethernet7/1.100");
  EXPECT_EQ(GenericIntfId::partIs(id, 0, 0).stringValue(), "Ethernet3/1");
  EXPECT_THROW(GenericIntfId::partIs(id, 1, 1024), Mox::RangeException);
}

TEST_F(IntfIdDescTest, TypeIdReplacementDropsTheUpperWord) {
  const IntfId vlan("Vlan5");
  EXPECT_EQ(GenericIntfId::typeIdIs(vlan, 6), IntfId("Vxlan5"));
  const IntfId et("Ethernet3/1.7");
  const IntfId po = GenericIntfId::typeIdIs(et, 2);
  EXPECT_EQ(po.upper(), 0u);
  EXPECT_EQ(po.lower(), (et.lower() & 0x1FFFFFFu) | 2u << 25);
  EXPECT_EQ(po.stringValue(), "Port-Channel7");  // the dot part now leads
  // Type ids with bit 6 set widen as a signed quantity.
  EXPECT_EQ(GenericIntfId::typeIdIs(vlan, 100).upper(), 0xFFFFFFFFu);
  EXPECT_THROW(IntfId(U64(99) << 25).stringValue(), Mox::RangeException);  // no such layout
}

TEST_F(IntfIdDescTest, ExternalPluginTypeWorks) {
  const auto* loader = Korva::IntfIdDescPluginLoader::DefaultPluginLoader();
  EXPECT_TRUE(loader->failures().empty());
  EXPECT_GE(loader->loaded().size(), 2u);
  ASSERT_TRUE(mgr->intfIdDesc(100))
      << "the test plugin was not loaded from " << KORVA_TEST_PLUGIN_DIR;
  const IntfId recirc("Recirc3/0");
  EXPECT_EQ(recirc.stringValue(), "Recirc3/0");
  EXPECT_EQ(recirc.shortName(), "Rc3/0");
  const IntfId mirror("RecircMirror7");
  EXPECT_EQ(GenericIntfId::typeId(mirror), 100);
  EXPECT_EQ(GenericIntfId::subType(mirror), 1);
  EXPECT_EQ(mirror.shortName(), "RcM7");
  EXPECT_EQ(IntfId("Recirc0").stringValue(), "Recirc0");
}

TEST_F(IntfIdDescTest, StandardTypesAndShortNames) {
  const std::pair<const char*, const char*> names[] = {{"Ethernet3/1.100", "Et3/1.100"},
                                                       {"Port-Channel10", "Po10"},
                                                       {"Management1/1", "Ma1/1"},
                                                       {"Loopback0", "Lo0"},
                                                       {"Vlan4094", "Vl4094"},
                                                       {"Vxlan1", "Vx1"},
                                                       {"Tunnel0", "Tun0"},
                                                       {"Test3", "tap-3"},
                                                       {"Internal2", "Internal2"},
                                                       {"Fabric4", "Fabric4"}};
  std::set<U8> typeIds;
  for (const auto& [longName, shortName] : names) {
    const IntfId id(longName);
    EXPECT_EQ(id.stringValue(), longName);
    EXPECT_EQ(id.shortName(), shortName);
    typeIds.insert(GenericIntfId::typeId(id));
  }
  EXPECT_EQ(typeIds.size(), std::size(names));
}

// Registers test types in test mode and removes them again, so later tests in the same
// process see the standard set.
class IntfIdRegistration : public IntfIdDescTest {
 protected:
  void SetUp() override {
    IntfIdDescTest::SetUp();
    mgr->testModeIs(true);
  }
  void TearDown() override {
    for (U8 typeId : added) mgr->intfIdDescDel(typeId);
    mgr->testModeIs(false);
  }
  Mox::Ptr<Korva::IntfIdDesc> add(U8 typeId, const char* prefix, U8 parts = 1) {
    auto desc = mgr->newIntfIdDesc(typeId, prefix, 1);
    for (U8 p = 0; p < parts; ++p) desc->partIs(p, IntfIdPart(8, false, '/'));
    desc->initializedIs(true);
    added.push_back(typeId);
    return desc;
  }
  std::vector<U8> added;
};

TEST_F(IntfIdRegistration, TrieIsRebuiltOnEveryChange) {
  EXPECT_THROW(IntfId("Eth1"), Mox::RangeException);
  // Prefixes that share their beginnings with standard ones and with each other.
  add(40, "Eth");
  add(41, "Ethernets");
  add(42, "Tunnelx");
  add(43, "V");
  for (const char* name :
       {"Eth1", "Ethernets2", "Tunnelx3", "V4", "Ethernet5", "Tunnel6", "Vlan7"}) {
    EXPECT_EQ(IntfId(name).stringValue(), name);
  }
  EXPECT_EQ(GenericIntfId::typeId(IntfId("Ethernets2")), 41);
  mgr->intfIdDescDel(41);
  EXPECT_THROW(IntfId("Ethernets2"), Mox::RangeException);
  EXPECT_EQ(IntfId("Eth1").stringValue(), "Eth1");
}

TEST_F(IntfIdRegistration, DescriptorChangesReachTheTrie) {
  auto desc = add(44, "Widget");
  EXPECT_THROW(IntfId("Widget1/2"), Mox::RangeException);
  desc->partIs(1, IntfIdPart(8, false, '/'));
  EXPECT_EQ(IntfId("Widget1/2").stringValue(), "Widget1/2");
  desc->prefixIs(2, "WidgetPort");
  desc->shortPrefixSubTypeIs(2, ShortPrefix("Wp"));
  EXPECT_EQ(IntfId("WidgetPort1/2").shortName(), "Wp1/2");
  EXPECT_EQ(IntfId("Widget1/2").shortName(), "Widget1/2");  // no short prefix of its own
  desc->shortPrefixIs(ShortPrefix("Wd"));
  EXPECT_EQ(IntfId("Widget1/2").shortName(), "Wd1/2");
}

TEST_F(IntfIdRegistration, ConflictsAbortWithTheirAssertionTexts) {
  EXPECT_DEATH(mgr->newIntfIdDesc(1, "Ether", 1),
               "typeId 1 prefix Ether already in use with prefix Ethernet\n"
               "Assertion \"0\" failed in Korva/IntfIdDesc.cpp");
  EXPECT_DEATH(mgr->intfIdDescDel(127),
               "Assertion \"typeId <= intfIdDescMaxTypeId\\(\\)\" failed in Korva/IntfIdDesc.cpp");
  auto desc = add(46, "Ab");
  EXPECT_DEATH(
      desc->shortPrefixIs(ShortPrefix("Abc")),
      "shortPrefixSubType\\( subintfId \\).bytes\\(\\) <= prefix\\( subintfId \\).bytes\\(\\)");
}

TEST_F(IntfIdDescTest, ChangesAfterInitialisationNeedTestMode) {
  ASSERT_FALSE(mgr->testMode());
  EXPECT_DEATH(mgr->newIntfIdDesc(50, "Late", 1),
               "Assertion \"!initialized\\(\\) \\|\\| testMode\\(\\)\" failed");
}

TEST(IntfIdMgrStandalone, DescriptorsBeforeInitialisationJoinTheTrie) {
  Korva::IntfIdMgr mgr("standalone");
  auto desc = mgr.newIntfIdDesc(60, "Early", 1);
  desc->partIs(0, IntfIdPart(4, false, '/'));
  desc->initializedIs(true);
  EXPECT_EQ(mgr.trie(), nullptr);
  mgr.initializedIs(true);
  ASSERT_NE(mgr.trie(), nullptr);
  EXPECT_EQ(mgr.intfIdToString(IntfId(mgr.stringToIntfId("Early9")), true), "Early9");
  EXPECT_TRUE(mgr.intfIdDesc(1));  // the built-in plugin ran for this manager too
}

// --- name converters and natural order ---

struct Case {
  const char* in;
  const char* out;
};

// Every row of the long and kernel tables, both ways where the names map back.
TEST(IntfNameConverters, LongAndKernelEveryRow) {
  enum Way { both, toKernel, toLong };
  const struct {
    const char* longName;
    const char* kernelName;
    Way way;
  } cases[] = {
      {"Ethernet3/1", "et3_1", both},
      {"Ethernet3/1.100", "et3_1.100", both},
      {"Ethernet49/1", "et49_1", both},
      {"Vlan100", "vlan100", both},
      {"Vxlan1", "vxlan1", both},
      {"Loopback0", "lo0", both},
      {"Internal1/2", "internal1_2", both},
      {"Fabric3", "fabric3", both},
      {"Management1/1", "ma1_1", both},
      {"Port-Channel10", "po10", both},
      {"Test5", "tap-5", both},
      {"Tunnel7", "tun7", both},
      {"ETHERNET1", "et1", toKernel},
      {"VLAN100", "vlan100", toKernel},
      {"ethernet1/2/3", "et1_2_3", toKernel},
      {"Ethernet1/A", "et1_A", toKernel},  // the tail keeps its case
      {"Testing", "tap-ing", toKernel},    // match words are not guarded by a digit
      {"Ethernet1", "ET1", toLong},
      {"Testtap3", "tap3", toLong},  // no "-": the whole name follows
      {"Etherneth0", "eth0", toLong},
      {"Managementcvlan0", "macvlan0", toLong},
      {"Loopbacknely", "lonely", toLong},
  };
  for (const auto& c : cases) {
    if (c.way != toLong) {
      EXPECT_EQ(Korva::vexIntfToKernelIntf(c.longName), c.kernelName);
    }
    if (c.way != toKernel) {
      EXPECT_EQ(Korva::kernelIntfToVexIntf(c.kernelName), c.longName);
    }
  }
}

TEST(IntfNameConverters, ShortToLongEveryRow) {
  const Case cases[] = {
      {"Et3/1", "Ethernet3/1"},   {"et3/1.5", "Ethernet3/1.5"},
      {"Vl10", "Vlan10"},         {"Vx2", "Vxlan2"},
      {"Lo0", "Loopback0"},       {"Internal1", "Internal1"},
      {"Fabric3", "Fabric3"},     {"Ma1/1", "Management1/1"},
      {"Po10", "Port-Channel10"}, {"tap-3", "Test3"},
      {"Tun7", "Tunnel7"},        {"et3_1", "Ethernet3_1"},  // no separator replacement
      {"Vlan10", "Vlanan10"},
  };
  for (const Case& c : cases) EXPECT_EQ(Korva::shortIntfToVexIntf(c.in), c.out) << c.in;
}

TEST(IntfNameConverters, NoMatchingWordThrowsEachConvertersMessage) {
  // Match words must begin the name.
  for (const char* name : {"Foo1", "", "xEthernet1"}) {
    EXPECT_EQ(failureText([&] { Korva::vexIntfToKernelIntf(name); }),
              "Unable to convert VEX if name to kernel if name");
  }
  EXPECT_EQ(failureText([] { Korva::kernelIntfToVexIntf("Foo1"); }),
            "Unable to convert kernel if name to VEX if name");
  EXPECT_EQ(failureText([] { Korva::shortIntfToVexIntf("Foo1"); }),
            "Unable to convert short if name to VEX if name");
}

TEST(IntfNameLenientParse, AcceptsEveryFormAndPassesTheLastFailureOn) {
  intfIdMgr();
  for (const char* name : {"Ethernet3/1", "et3_1", "Et3/1"}) {
    EXPECT_EQ(Korva::stringToVexIntf(name), IntfId("Ethernet3/1")) << name;
  }
  EXPECT_EQ(Korva::stringToVexIntf("vlan10"), IntfId("Vlan10"));
  EXPECT_EQ(Korva::stringToVexIntf("tap-3"), IntfId("Test3"));
  EXPECT_EQ(Korva::stringToVexIntf("Po10.5"), IntfId("Port-Channel10.5"));
  EXPECT_FALSE(Korva::stringToVexIntf(""));
  EXPECT_EQ(failureText([] { Korva::stringToVexIntf("Foo1"); }),
            "Unable to convert short if name to VEX if name");
  // The short converter matched "vl", so the parser has the last word.
  EXPECT_EQ(failureText([] { Korva::stringToVexIntf("Vl0"); }),
            "Invalid IntfId, zero not valid <Vlan0>");
}

class IntfNameOrder : public ::testing::Test {
 protected:
  void SetUp() override { intfIdMgr(); }
  static int cmp(const char* a, const char* b) {
    return Korva::compareIntfName(IntfId(a), IntfId(b));
  }
};

TEST_F(IntfNameOrder, ThreadsCompareWithoutDisturbingEachOther) {
  // Once the pattern is compiled, comparisons on several threads must agree with one thread.
  const std::vector<IntfId> ids = {IntfId("Ethernet2"),   IntfId("Ethernet10"),
                                   IntfId("Ethernet1/1"), IntfId("Ethernet1/1.3"),
                                   IntfId("Vlan7"),       IntfId("Port-Channel12")};
  std::vector<int> expected;
  for (IntfId a : ids) {
    for (IntfId b : ids) expected.push_back(Korva::compareIntfName(a, b));
  }
  auto agrees = [&] {
    for (int round = 0; round < 2000; ++round) {
      size_t k = 0;
      for (IntfId a : ids) {
        for (IntfId b : ids) {
          if (Korva::compareIntfName(a, b) != expected[k++]) return false;
        }
      }
    }
    return true;
  };
  bool otherAgrees = false;
  std::thread other([&] { otherAgrees = agrees(); });
  const bool thisAgrees = agrees();
  other.join();
  EXPECT_TRUE(thisAgrees);
  EXPECT_TRUE(otherAgrees);
}

// Numbers compare as -1, 0 or 1 (their order is the sort test's business); the type word
// gives the raw strcmp value.
TEST_F(IntfNameOrder, NumbersGiveTheSignTheTypeWordTheRawStrcmpValue) {
  EXPECT_EQ(cmp("Ethernet2", "Ethernet10"), -1);
  EXPECT_EQ(cmp("Ethernet1/1.3", "Ethernet1/1"), 1);
  EXPECT_EQ(cmp("Ethernet1/1", "Ethernet1/1"), 0);
  // Called through a pointer so that the compiler cannot fold it to a bare sign.
  int (*volatile libcStrcmp)(const char*, const char*) = &std::strcmp;
  EXPECT_EQ(cmp("Ethernet1", "Vlan1"), libcStrcmp("Ethernet", "Vlan"));
  EXPECT_EQ(cmp("Vlan1", "Ethernet1"), libcStrcmp("Vlan", "Ethernet"));
  EXPECT_EQ(cmp("Port-Channel1", "Loopback0"), libcStrcmp("Port-Channel", "Loopback"));
}

TEST_F(IntfNameOrder, NullIdAborts) {
  EXPECT_DEATH(Korva::compareIntfName(IntfId(), IntfId("Ethernet1")),
               "Assertion \"aret > 1\" failed in Korva/KorvaUtils.cpp, S32 "
               "Korva::compareIntfName\\(Korva::IntfId, Korva::IntfId\\)");
  EXPECT_DEATH(Korva::compareIntfName(IntfId("Ethernet1"), IntfId()), "\"bret > 1\"");
}

// An independent reading of the order: the type word, then the "/" numbers and the ".n"
// number as one list (the ".n" number always in the fourth slot), shorter list first.
struct ReferenceKey {
  std::string word;
  std::vector<long> numbers;
};

ReferenceKey referenceKey(const std::string& name) {
  ReferenceKey key;
  size_t i = name.find_first_of("0123456789");
  key.word = name.substr(0, i);
  const size_t dot = name.find('.', i);
  std::string slashPart = name.substr(i, dot == std::string::npos ? std::string::npos : dot - i);
  for (size_t start = 0; start < slashPart.size();) {
    size_t end = slashPart.find('/', start);
    if (end == std::string::npos) end = slashPart.size();
    key.numbers.push_back(std::stol(slashPart.substr(start, end - start)));
    start = end + 1;
  }
  if (dot != std::string::npos) {
    key.numbers.resize(3, 0);
    key.numbers.push_back(std::stol(name.substr(dot + 1)));
  }
  return key;
}

bool referenceLess(const std::string& a, const std::string& b) {
  const ReferenceKey ka = referenceKey(a);
  const ReferenceKey kb = referenceKey(b);
  if (ka.word != kb.word) return ka.word < kb.word;
  return ka.numbers < kb.numbers;  // lexicographic, a proper prefix first
}

std::vector<IntfId> realisticIds(size_t count, std::mt19937& rng) {
  auto n = [&rng](int low, int high) {
    return std::to_string(std::uniform_int_distribution<int>(low, high)(rng));
  };
  auto maybe = [&rng](const std::string& tail) { return rng() % 2 ? tail : ""; };
  const std::function<std::string()> forms[] = {
      [&] { return "Ethernet" + n(1, 64); },
      [&] { return "Ethernet" + n(1, 12) + "/" + n(1, 48); },
      [&] { return "Ethernet" + n(1, 8) + "/" + n(1, 36) + "/" + n(1, 4); },
      [&] { return "Ethernet" + n(1, 12) + "/" + n(1, 48) + "." + n(1, 4094); },
      [&] { return "Port-Channel" + n(1, 2000) + maybe("." + n(1, 100)); },
      [&] { return "Vlan" + n(1, 4094); },
      [&] { return "Management" + n(1, 2) + maybe("/" + n(1, 2)); },
      [&] { return "Loopback" + n(0, 999); },
  };
  std::set<IntfId> ids;
  for (size_t draw = 0; ids.size() < count && draw < 100 * count; ++draw) {
    ids.insert(IntfId(forms[rng() % std::size(forms)]()));
  }
  std::vector<IntfId> list(ids.begin(), ids.end());
  std::shuffle(list.begin(), list.end(), rng);
  return list;
}

std::vector<std::string> names(const std::vector<IntfId>& ids) {
  std::vector<std::string> out;
  for (IntfId id : ids) out.push_back(id.stringValue());
  return out;
}

TEST_F(IntfNameOrder, SortAgreesWithAnIndependentComparison) {
  std::mt19937 rng(1657);
  const std::vector<IntfId> shuffled = realisticIds(3000, rng);

  std::vector<std::string> expected = names(shuffled);
  std::sort(expected.begin(), expected.end(), referenceLess);

  std::vector<IntfId> byCompare = shuffled;
  std::sort(byCompare.begin(), byCompare.end(),
            [](IntfId a, IntfId b) { return Korva::compareIntfName(a, b) < 0; });
  EXPECT_EQ(names(byCompare), expected);

  std::vector<IntfId> byKey = shuffled;
  Korva::sortByIntfName(byKey);
  EXPECT_EQ(names(byKey), expected);
}

}  // namespace
