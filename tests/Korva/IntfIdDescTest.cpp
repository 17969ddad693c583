#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>
#include <Mox/Trace.h>

#include <gtest/gtest.h>

#include <set>

#include "Korva/IntfIdTestSupport.h"
#include "ValueTestUtil.h"

namespace {

using Korva::GenericIntfId;
using Korva::IntfId;
using Korva::IntfIdPart;
using Korva::ShortPrefix;
using Korva::U64;
using Korva::U8;
using KorvaTest::failureText;

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

class IntfIdDescTest : public ::testing::Test {
 protected:
  void SetUp() override { mgr = KorvaTest::intfIdMgr(); }
  Korva::IntfIdMgr* mgr = nullptr;
};

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

}  // namespace
