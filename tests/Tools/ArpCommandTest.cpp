// Runs the built korva tool's arp show as a user would: its shim, in its own process,
// prints the table this test writes.

#include <Arp/ArpTable.h>
#include <Cairn/Segment.h>
#include <Korva/IntfIdDesc.h>
#include <Vrf/VrfIdMap.h>
#include <nlohmann/json.hpp>

#include "KorvaToolRun.h"

namespace {

using namespace Arp::Table;
using Vrf::VrfIdMap::VrfId;

class ArpCommand : public KorvaTest::KorvaTool {
 protected:
  ArpCommand() : KorvaTool("arp") {}
  void TearDown() override {
    vrfs_ = nullptr;
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
  std::string table_ = "test-arp-tool-" + std::to_string(getpid());
  std::string vrfTable_ = "test-arpvrf-tool-" + std::to_string(getpid());
  Mox::Ptr<Status> arp_ = statusFactory(table_, 64);
  Mox::Ptr<Vrf::VrfIdMap::Writer> vrfs_ =
      Vrf::VrfIdMap::writerFactory(Vrf::VrfIdMap::statusFactory(vrfTable_), vrfTable_);
};

TEST_F(ArpCommand, ShowPrintsTheMirroredTreePerVrfAndInterface) {
  Korva::IntfIdMgr::ensureInitialized();
  const VrfId blue = vrfs_->vrfIs("blue");
  add(VrfId(0), "Ethernet1", "10.0.0.1", true);
  add(VrfId(0), "Ethernet1", "fe80::1", false);
  add(blue, "Ethernet2/1", "10.1.0.1", false);
  add(VrfId(9), "Ethernet3", "10.9.0.1", false);  // a VRF without a name is not shown
  const KorvaTest::ToolRun all = show("");
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.output,
            "vrf blue\n  Ethernet2/1\n    10.1.0.1 00:00:00:00:00:07 dynamic dynamic\n"
            "vrf default\n  Ethernet1\n    10.0.0.1 00:00:00:00:00:07 static cli\n"
            "    fe80::1 00:00:00:00:00:07 dynamic dynamic\n");
  const auto blueOnly = nlohmann::json::parse(show("--vrf blue --json").output);
  EXPECT_EQ(blueOnly, nlohmann::json::parse(R"({"blue": {"Ethernet2/1": [{"address": "10.1.0.1",
      "ethAddr": "00:00:00:00:00:07", "static": false, "source": "dynamic"}]}})"));
  EXPECT_EQ(run("--table ../bad show").status, 1);
}

}  // namespace
