// Runs the built korva tool's arp commands as a user would: show's shim, in its own process,
// prints the table this test writes; publish fills the table from a namespace's kernel while
// watch's shim prints the changes that `ip neigh` makes there.

#include <Arp/ArpTable.h>
#include <Cairn/Segment.h>
#include <Korva/IntfIdDesc.h>
#include <Vrf/VrfIdMap.h>
#include <nlohmann/json.hpp>

#include "Korva/DtlsTestUtil.h"
#include "KorvaToolRun.h"

namespace {

using namespace Arp::Table;
using Vrf::VrfIdMap::VrfId;

class ArpCommand : public KorvaTest::KorvaTool {
 protected:
  ArpCommand() : KorvaTool("arp") {}
  void TearDown() override {
    Status::remove(table_);
    Cairn::removeTable(vrfTable_);
    Cairn::NamedSegment::remove(vrfTable_);
    KorvaTool::TearDown();
  }
  void add(VrfId vrf, const char* intf, const char* addr, bool isStatic) {
    const ArpKey key(vrf, Korva::IntfId(intf), Korva::IpGenAddr(addr));
    arp_->entryMap(key.addr().isV4())
        .entryIs(ArpEntry(key, Korva::EthAddr(0, 0, 7), isStatic, false,
                          Arp::ArpSource(isStatic ? Arp::ArpSource::ArpSourceId::cli
                                                  : Arp::ArpSource::ArpSourceId::dynamic)));
  }
  KorvaTest::ToolRun show(const std::string& arguments) {
    return run("--table " + table_ + " --vrf-table " + vrfTable_ + " show " + arguments);
  }
  // `korva arp ... <words>` as a process whose output the loop watches.
  std::unique_ptr<DtlsTest::Peer> start(std::vector<std::string> words) {
    std::vector<std::string> command{std::string(KORVA_BINARY_DIR) + "/korva",
                                     "arp",
                                     "--table",
                                     table_,
                                     "--vrf-table",
                                     vrfTable_};
    command.insert(command.end(), words.begin(), words.end());
    return std::make_unique<DtlsTest::Peer>(command);
  }
  std::string table_ = "test-arp-tool-" + std::to_string(getpid());
  std::string vrfTable_ = "test-arpvrf-tool-" + std::to_string(getpid());
  Mox::Ptr<Status> arp_ = statusFactory(table_, 64);
};

TEST_F(ArpCommand, ShowPrintsTheMirroredTreePerVrfAndInterface) {
  Korva::IntfIdMgr::ensureInitialized();
  auto vrfs = Vrf::VrfIdMap::writerFactory(Vrf::VrfIdMap::statusFactory(vrfTable_), vrfTable_);
  const VrfId blue = vrfs->vrfIs("blue");
  vrfs->vrfIs("red");  // named, without entries
  vrfs = nullptr;
  add(VrfId(0), "Ethernet1", "10.0.0.1", true);
  add(VrfId(0), "Ethernet1", "fe80::1", false);
  add(blue, "Ethernet2/1", "10.1.0.1", false);
  add(VrfId(9), "Ethernet3", "10.9.0.1", false);  // a VRF without a name is not shown
  const KorvaTest::ToolRun all = show("");
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.output,
            "vrf blue\n  Ethernet2/1\n    10.1.0.1 00:00:00:00:00:07 dynamic dynamic\n"
            "vrf default\n  Ethernet1\n    10.0.0.1 00:00:00:00:00:07 static cli\n"
            "    fe80::1 00:00:00:00:00:07 dynamic dynamic\nvrf red\n");
  EXPECT_EQ(nlohmann::json::parse(show("--vrf red --json").output),
            nlohmann::json::parse(R"({"red": {}})"));
  const auto blueOnly = nlohmann::json::parse(show("--vrf blue --json").output);
  EXPECT_EQ(blueOnly, nlohmann::json::parse(R"({"blue": {"Ethernet2/1": [{"address": "10.1.0.1",
      "ethAddr": "00:00:00:00:00:07", "static": false, "source": "dynamic"}]}})"));
  EXPECT_EQ(run("--table ../bad show").status, 1);
}

TEST_F(ArpCommand, PublishAndWatchFollowIpNeigh) {
  SocketTest::ScopedNs ns("arptool");
  if (!ns.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create namespaces";
  ASSERT_TRUE(ns.ip("link add et1 type veth peer name et2") && ns.ip("link set et1 up"));
  ASSERT_TRUE(ns.ip("neigh add fd00::5 lladdr 00:00:00:00:00:05 dev et1 nud permanent"));
  auto publisher = start({"publish", ns.name()});
  ASSERT_TRUE(publisher->prints("publishing 1 neighbours of " + ns.name())) << publisher->drained();
  auto watch = start({"watch"});
  EXPECT_TRUE(watch->prints("+ default Ethernet1 fd00::5 00:00:00:00:00:05 static cli\n"));
  ASSERT_TRUE(ns.ip("neigh add 10.0.0.6 lladdr 00:00:00:00:00:06 dev et1 nud reachable"));
  EXPECT_TRUE(watch->prints("+ default Ethernet1 10.0.0.6 00:00:00:00:00:06 dynamic dynamic\n"));
  ASSERT_TRUE(ns.ip("neigh del fd00::5 dev et1"));
  EXPECT_TRUE(watch->prints("- default Ethernet1 fd00::5\n")) << watch->drained();
  EXPECT_EQ(watch->interrupt(), 0);
  // Stopping the watch is no removal of what it showed.
  EXPECT_EQ(watch->drained().find("- default Ethernet1 10.0.0.6"), std::string::npos);
  EXPECT_EQ(publisher->interrupt(), 0);
}

}  // namespace
