// The ARP, neighbour and next-hop models: the rules that a model edit could break.
#include <Arp/ArpHardware.mox.h>
#include <Arp/ArpSource.mox.h>
#include <Arp/ArpTypes.mox.h>
#include <Arp/MonitoredNexthopInput.mox.h>
#include <Arp/RibNextHop.mox.h>
#include <Korva/IntfIdDesc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Arp {
namespace {

using Id = ArpSource::ArpSourceId;
using Korva::EthAddr;
using Korva::IntfId;
using Korva::Ip6Addr;
using Korva::IpAddr;

class ArpModel : public testing::Test {
 protected:
  void SetUp() override { Korva::IntfIdMgr::ensureInitialized(); }
};

TEST_F(ArpModel, SourcesCompareByIdAndReadOnlyTheirNames) {
  std::vector<ArpSource> sources;
  for (const char* name : {"dynamic", "cli", "evpn", "arpSuppression"}) {
    ArpSource source;
    source.stringValueIs(name);
    EXPECT_EQ(source.stringValue(), name);
    EXPECT_EQ(ArpSource(ArpSource::ArpSourceIdInstance(name)), source);
    sources.push_back(source);
  }
  std::sort(sources.begin(), sources.end());
  std::vector<std::string> names;
  for (const ArpSource& source : sources) names.push_back(source.stringValue());
  EXPECT_EQ(names, (std::vector<std::string>{"dynamic", "arpSuppression", "evpn", "cli"}));
  EXPECT_EQ(static_cast<int>(Id::cli), 200);
  ArpSource source(Id::evpn);
  for (const char* bad : {"static", "", "Cli", "cli "}) {
    EXPECT_THROW(source.stringValueIs(bad), Mox::RangeException) << bad;
    EXPECT_THROW(ArpSource::ArpSourceIdInstance(bad), Mox::RangeException) << bad;
  }
  EXPECT_EQ(source, ArpSource(Id::evpn));  // a failed parse changes nothing
}

// The text forms follow from the models; each reads back to an equal value of equal hash.
template <class... T>
void expectRoundTrips(const T&... values) {
  (
      [](const auto& value) {
        std::decay_t<decltype(value)> back;
        back.stringValueIs(valueToStrep(value));
        EXPECT_EQ(back, value) << value;
        EXPECT_EQ(back.hash(), value.hash());
      }(values),
      ...);
}

TEST_F(ArpModel, ValuesRoundTripThroughText) {
  const IpAddr ip(10, 1, 2, 3);
  const Ip6Addr ip6("fe80::1");
  const EthAddr mac(0x0011, 0x2233, 0x4455);
  const ArpSource evpn(Id::evpn);
  const NeighborEntryKey key(ip6, IntfId("Ethernet3/1"));
  expectRoundTrips(
      ArpEntry(ip, mac, true, evpn), ArpEntryInput(ip, mac, false, evpn),
      ArpEntryStatus(ip, mac, false, evpn, true), ArpGenEntry(Korva::IpGenAddr(ip6), mac),
      ArpGenEntryStatus(Korva::IpGenAddr(ip), mac, true), ArpMacAddrPair(mac, EthAddr(1, 2, 3)),
      NeighborEntry(ip6, mac, true, evpn), key, NeighborEntryConfigInput(key, mac, evpn),
      NeighborEntryStatus(ip6, mac, true, evpn));
}

TEST_F(ArpModel, DefaultVrfIsTheOnlyImplicitMember) {
  auto config = arpInputConfigFactory("config");
  auto status = arpInputStatusFactory("status");
  auto responses = RibNextHop::responseDirFactory("responses");
  EXPECT_EQ(config->vrfSize(), 1u);
  EXPECT_EQ(status->vrfSize(), 1u);
  EXPECT_EQ(responses->vrfSize(), 1u);
  ASSERT_TRUE(config->vrf("default") && status->vrf("default") && responses->vrf("default"));
  EXPECT_EQ(config->vrf("default")->name(), "default");
  // Nothing below the VRF level is made implicitly.
  EXPECT_EQ(config->vrf("default")->ipv4Size() + status->vrf("default")->ipv4Size(), 0u);
  EXPECT_EQ(arpVrfStatusDirFactory("dir")->vrfStatusSize(), 0u);
}

// Next-hop requests are child entities named after their key's text, and carry the key.
TEST_F(ArpModel, NextHopRequestsAreNamedAfterTheirKey) {
  const MonitoredNexthop::Entry entry(Korva::IpGenAddr(IpAddr(10, 0, 0, 9)), IntfId("Ethernet2"));
  auto requests = MonitoredNexthop::Input::vrfStatusDirFactory("client")->newVrfStatus("default");
  auto request = requests->newNextHop(entry);
  EXPECT_EQ(request->name(), valueToStrep(entry));
  EXPECT_EQ(request->entry(), entry);
  auto aggregate = MonitoredNexthop::vrfStatusDirFactory("agg")->newVrfStatus("red");
  EXPECT_EQ(aggregate->newNextHop(entry)->name(), valueToStrep(entry));
}

}  // namespace
}  // namespace Arp
