// The ARP shim following a table and a VRF id map written by another real process.
#include "Cairn/Damage.h"
#include "Cairn/Peer.h"

#include <Arp/ArpShim.h>
#include <Cairn/Segment.h>
#include <Korva/IntfIdDesc.h>
#include <Mox/Activity.h>
#include <Mox/Trace.h>

#include <set>
#include <string>

namespace Arp {
namespace {

using Table::ArpKey;
using Vrf::VrfIdMap::VrfId;
using Tree = std::set<std::string>;

// "vrf interface address" for every entry of the mirrored tree, and "vrf interface" for an
// interface status without entries.
Tree treeOf(const ArpVrfStatusDir& dir) {
  Tree tree;
  for (const auto& [vrf, status] : dir.vrfStatusColl()) {
    if (status->arpIntfStatusSize() == 0) tree.insert(vrf);
    for (const auto& [intf, entries] : status->arpIntfStatusColl()) {
      const std::string prefix = vrf + " " + intf;
      if (!entries->arpEntrySize() && !entries->ip6NeighborEntrySize()) tree.insert(prefix);
      for (const auto& [ip, entry] : entries->arpEntryColl()) {
        tree.insert(prefix + " " + ip.stringValue() + (entry.isStatic() ? " static" : ""));
      }
      for (const auto& [ip6, entry] : entries->ip6NeighborEntryColl()) {
        tree.insert(prefix + " " + ip6.stringValue() + (entry.isStatic() ? " static" : ""));
      }
    }
  }
  return tree;
}

class ArpShimTest : public testing::Test {
 protected:
  void SetUp() override {
    Korva::IntfIdMgr::ensureInitialized();
    ASSERT_EQ(tell("vrf add default"), "ok\n");  // both tables exist before any reader
  }
  void TearDown() override {
    shim_ = nullptr;
    writer_.closeInput();
    writer_.waitFor(10.0);
    Table::Status::remove(arpTable_);
    Cairn::removeTable(vrfTable_);
    Cairn::NamedSegment::remove(vrfTable_);
  }
  // One command to the writer process; its answer.
  std::string tell(const std::string& command) {
    writer_.send(command + "\n");
    return writer_.read(3, 10.0);
  }
  void tellAll(std::initializer_list<const char*> commands) {
    for (const char* command : commands) ASSERT_EQ(tell(command), "ok\n") << command;
  }
  void startShim(const std::string& vrfName, bool v4, bool v6) {
    arpStatus_ = neighborDirFactory(vrfName.empty() ? "default" : vrfName);
    shim_ = arpShimSmFactory(Table::statusFactory(arpTable_, 1024),
                             Vrf::VrfIdMap::statusFactory(vrfTable_), vrfName, v4, v6, arpStatus_,
                             dir_);
  }
  // Runs the loop until the mirrored tree is `expected` (bounded), then compares.
  void expectMirrored(const Tree& expected) {
    Mox::runUntil([&] { return treeOf(*dir_) == expected; }, 5.0);
    EXPECT_EQ(treeOf(*dir_), expected);
  }

  const std::string arpTable_ = "test-arp-" + std::to_string(getpid());
  const std::string vrfTable_ = "test-arpvrf-" + std::to_string(getpid());
  CairnTest::Peer writer_{{arpTable_, vrfTable_}, "arpPeer"};
  Mox::Ptr<ArpVrfStatusDir> dir_ = arpVrfStatusDirFactory("vrfs");
  Mox::Ptr<NeighborDir> arpStatus_;
  Mox::Ptr<ArpShimSm> shim_;
};

TEST_F(ArpShimTest, MirrorsEveryVrfAndFamilyAndReplaysLateVrfNames) {
  tellAll({"vrf add blue",  // id 1; "red" will be 2
           "set 4 0 Ethernet1 10.0.0.1 00:00:00:00:00:01 0",
           "set 6 0 Ethernet1 fe80::1 00:00:00:00:00:02 1",
           "set 4 1 Ethernet2/1 10.1.0.1 00:00:00:00:00:03 0",
           "set 4 2 Ethernet3 10.2.0.1 00:00:00:00:00:04 0"});  // no name yet
  startShim("", true, true);
  EXPECT_EQ(treeOf(*dir_), (Tree{"default Ethernet1 10.0.0.1", "default Ethernet1 fe80::1 static",
                                 "blue Ethernet2/1 10.1.0.1"}));
  EXPECT_EQ(dir_->vrfStatus("default"), arpStatus_);
  const auto entry =
      dir_->vrfStatus("blue")->arpIntfStatus("Ethernet2/1")->arpEntry(Korva::IpAddr(10, 1, 0, 1));
  EXPECT_EQ(entry.ethAddr(), Korva::EthAddr(0, 0, 3));

  tellAll({"set 6 1 Ethernet2/1 fd00::5 00:00:00:00:00:05 0", "vrf add red"});
  expectMirrored({"default Ethernet1 10.0.0.1", "default Ethernet1 fe80::1 static",
                  "blue Ethernet2/1 10.1.0.1", "blue Ethernet2/1 fd00::5",
                  "red Ethernet3 10.2.0.1"});

  // The last entries of an interface go, the interface status stays; a VRF goes whole.
  tellAll({"del 4 1 Ethernet2/1 10.1.0.1", "del 6 1 Ethernet2/1 fd00::5", "vrf del red",
           "set 4 0 Ethernet1 10.0.0.1 00:00:00:00:00:01 1"});
  const Tree after{"default Ethernet1 10.0.0.1 static", "default Ethernet1 fe80::1 static",
                   "blue Ethernet2/1"};
  expectMirrored(after);
  // An entry the agent dropped from its tree comes back when the writer announces its key.
  arpStatus_->arpIntfStatus("Ethernet1")->ip6NeighborEntryDel(Korva::Ip6Addr("fe80::1"));
  tellAll({"notify 6 0 Ethernet1 fe80::1"});
  expectMirrored(after);
  shim_->handleVrfDelete("default");
  EXPECT_TRUE(dir_->vrfStatus("default"));

  // A shim that goes leaves the tree it filled as it was and follows nothing more.
  shim_ = nullptr;
  tellAll({"set 4 0 Ethernet1 10.0.0.9 00:00:00:00:00:09 0"});
  Mox::runOnce(0.05);
  EXPECT_EQ(treeOf(*dir_), after);
}

TEST_F(ArpShimTest, ServesOneVrfAndOneFamily) {
  Mox::traceConfigIs("ArpShim/0-9");
  Mox::TraceCapture trace;
  tellAll({"vrf add blue", "set 4 0 Ethernet1 10.0.0.1 00:00:00:00:00:01 0",
           "set 6 1 Ethernet1 fe80::1 00:00:00:00:00:02 0",
           "set 4 1 Ethernet1 10.1.0.1 00:00:00:00:00:03 0"});
  startShim("blue", true, false);
  EXPECT_EQ(treeOf(*dir_), (Tree{"blue Ethernet1 10.1.0.1"}));
  EXPECT_EQ(dir_->vrfStatus("blue"), arpStatus_);  // the VRF served fills the given status
  EXPECT_TRUE(trace.contains("handleInitialized vrf: blue"));
  EXPECT_TRUE(trace.contains(" update not for vrf of interest: default"));
  EXPECT_TRUE(trace.contains("  don't care about this IP version"));
  EXPECT_TRUE(trace.contains("  creating vrfStatus for vrf blue"));
  EXPECT_TRUE(trace.contains("  creating arpIntfStatus for Ethernet1"));

  trace.clear();
  tellAll({"set 4 3 Ethernet9 10.9.0.1 00:00:00:00:00:09 0", "vrf add red"});
  Mox::runUntil([&] { return trace.contains(" update not for vrf of interest: red"); }, 5.0);
  EXPECT_TRUE(trace.contains("  can't find vrf name for vrf id: 3"));
  EXPECT_TRUE(trace.contains(" update not for vrf of interest: red"));
  tellAll({"vrf del blue"});
  expectMirrored({});
  EXPECT_EQ(arpStatus_->arpIntfStatusSize(), 0u);
  Mox::traceConfigIs("");
}

TEST_F(ArpShimTest, ReplayAndDeletionTraces) {
  Mox::traceConfigIs("ArpShim/0-9");
  Mox::TraceCapture trace;
  startShim("", true, true);
  tellAll({"set 4 1 Ethernet2 10.1.0.1 00:00:00:00:00:01 0"});
  Mox::runUntil([&] { return trace.contains("  can't find vrf name for vrf id: 1"); }, 5.0);
  tellAll({"vrf add blue"});
  const Tree replayed{"default", "blue Ethernet2 10.1.0.1"};  // every VRF named has a status
  expectMirrored(replayed);
  EXPECT_TRUE(trace.contains(" vrf: blue id: 1"));
  EXPECT_TRUE(trace.contains("  adding arp entry on vrf blue, Ethernet2: Value('Arp::Table::"));
  shim_->handleVrfDelete("green");
  EXPECT_TRUE(trace.contains("  can't find vrfStatus entry for vrf green"));
  shim_->handleArpEntry(ArpKey(VrfId(1), Korva::IntfId("Ethernet7"), Korva::IpGenAddr("1.2.3.4")));
  EXPECT_TRUE(trace.contains("  can't find arpIntfStatus entry for Ethernet7"));
  Mox::traceConfigIs("");
}

TEST_F(ArpShimTest, DamagedEntryIsReportedAndReadsAsAbsent) {
  tellAll({"set 4 0 Ethernet1 10.0.0.1 00:00:00:00:00:01 0"});
  startShim("", true, true);
  ASSERT_EQ(treeOf(*dir_), (Tree{"default Ethernet1 10.0.0.1"}));
  int reports = 0;
  Cairn::corruptionHandlerIs([&](const Cairn::Corruption&) { ++reports; });
  const ArpKey key(VrfId(0), Korva::IntfId("Ethernet1"), Korva::IpGenAddr("10.0.0.1"));
  // Its slot holds the key and then the entry, which starts with the key again; the
  // entry's Ethernet address follows.
  std::string slot(reinterpret_cast<const char*>(&key), sizeof key);
  ASSERT_TRUE(CairnTest::damage(arpTable_ + "-v4", slot + slot, 2 * sizeof key + 1, 0x40));
  shim_->handleArpEntry(key);
  Cairn::corruptionHandlerIs(nullptr);
  EXPECT_GT(reports, 0);
  EXPECT_EQ(treeOf(*dir_), (Tree{"default Ethernet1"}));
}

TEST(ArpShimDeathTest, ShimOfNoFamilyIsRefused) {
  auto table = Table::statusFactory("test-arp-none-" + std::to_string(getpid()), 16);
  auto vrfs = Vrf::VrfIdMap::statusFactory("test-arpvrf-none-" + std::to_string(getpid()));
  EXPECT_DEATH(arpShimSmFactory(table, vrfs, "", false, false, neighborDirFactory("default"),
                                arpVrfStatusDirFactory("vrfs")),
               "v4\\(\\) \\|\\| v6\\(\\)");
  EXPECT_DEATH(
      arpShimSmFactory(table, vrfs, "", true, false, nullptr, arpVrfStatusDirFactory("vrfs")),
      "arpStatus\\(\\)");
  EXPECT_DEATH(
      arpShimSmFactory(table, vrfs, "", true, false, neighborDirFactory("default"), nullptr),
      "arpVrfStatusDir\\(\\)");
}

TEST(ArpKey, OrderIsVrfThenInterfaceThenAddressAndTextRoundTrips) {
  Korva::IntfIdMgr::ensureInitialized();
  const Korva::IntfId et1("Ethernet1"), et2("Ethernet2");
  const Korva::IpGenAddr low("10.0.0.9"), high("fe80::1");
  const std::vector<ArpKey> ordered{{VrfId(0), et2, high},
                                    {VrfId(1), et1, high},
                                    {VrfId(1), et2, low},
                                    {VrfId(1), et2, high},
                                    {VrfId(0xFFFFFFFE), et1, low}};
  for (size_t i = 1; i < ordered.size(); ++i) EXPECT_LT(ordered[i - 1], ordered[i]) << i;
  const ArpKey& key = ordered[1];
  EXPECT_EQ(key.stringValue(),
            "Value('Arp::Table::ArpKey', ** {'vrfId': 1, 'addr': fe80::1, 'intfId': "
            "'Ethernet1'})");
  ArpKey back;
  back.stringValueIs(key.stringValue());
  EXPECT_EQ(back, key);
  EXPECT_THROW(back.stringValueIs("Value('Arp::Table::ArpKey', ** {'vrfId': 1})"),
               Mox::RangeException);
  EXPECT_EQ(back, key);
  const Table::ArpEntry entry(key, Korva::EthAddr(0, 0, 1), true, false,
                              ArpSource(ArpSource::ArpSourceId::evpn));
  Table::ArpEntry entryBack;
  entryBack.stringValueIs(entry.stringValue());
  EXPECT_EQ(entryBack, entry);
  EXPECT_EQ(entry.stringValue().find("Value('Arp::Table::ArpEntry', ** {'key': Value("), 0u);
}

}  // namespace
}  // namespace Arp
