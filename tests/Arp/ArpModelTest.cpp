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

TEST_F(ArpModel, SourcesCompareByIdNotByDeclaration) {
  std::vector<ArpSource> sources{ArpSource(Id::dynamic), ArpSource(Id::cli), ArpSource(Id::evpn),
                                 ArpSource(Id::arpSuppression)};
  std::sort(sources.begin(), sources.end());
  std::vector<std::string> names;
  for (const ArpSource& source : sources) names.push_back(source.stringValue());
  EXPECT_EQ(names, (std::vector<std::string>{"dynamic", "arpSuppression", "evpn", "cli"}));
  EXPECT_EQ(static_cast<int>(Id::cli), 200);
  EXPECT_NE(ArpSource(Id::evpn).hash(), ArpSource(Id::cli).hash());
}

TEST_F(ArpModel, SourceTextRoundTripsAndUnknownNamesAreRefused) {
  for (const char* name : {"dynamic", "cli", "evpn", "arpSuppression"}) {
    ArpSource source;
    source.stringValueIs(name);
    EXPECT_EQ(source.stringValue(), name);
    EXPECT_EQ(ArpSource(ArpSource::ArpSourceIdInstance(name)), source);
  }
  ArpSource source(Id::evpn);
  for (const char* bad : {"static", "", "Cli", "cli "}) {
    EXPECT_THROW(source.stringValueIs(bad), Mox::RangeException) << bad;
    EXPECT_THROW(ArpSource::ArpSourceIdInstance(bad), Mox::RangeException) << bad;
  }
  EXPECT_EQ(source, ArpSource(Id::evpn));  // a failed parse changes nothing
}

// Each value type's text is Value('Arp::T', ** {...}) with the attributes in the listed order,
// and reads back to an equal value.
template <class T>
void expectText(const T& value, const std::string& type, const std::string& attributes) {
  const std::string text = valueToStrep(value);
  EXPECT_EQ(text, "Value('Arp::" + type + "', ** {" + attributes + "})");
  T back;
  back.stringValueIs(text);
  EXPECT_EQ(back, value) << text;
  EXPECT_EQ(back.hash(), value.hash());
}

TEST_F(ArpModel, ValueTextForms) {
  const IpAddr ip(10, 1, 2, 3);
  const Ip6Addr ip6("fe80::1");
  const EthAddr mac(0x0011, 0x2233, 0x4455);
  const ArpSource evpn(Id::evpn);
  const IntfId et("Ethernet3/1");
  const std::string m = "'ethAddr': " + valueToStrep(mac);
  const std::string i = "'ipAddr': " + valueToStrep(ip), i6 = "'ip6Addr': " + valueToStrep(ip6);
  expectText(ArpEntry(ip, mac, true, evpn), "ArpEntry",
             i + ", " + m + ", 'isHostRoute': True, 'source': evpn");
  expectText(ArpEntryInput(ip, mac, false, evpn), "ArpEntryInput",
             i + ", " + m + ", 'isHostRoute': False, 'source': evpn");
  expectText(ArpEntryStatus(ip, mac, false, evpn, true), "ArpEntryStatus",
             i + ", " + m + ", 'isHostRoute': False, 'source': evpn, 'isStatic': True");
  expectText(ArpGenEntry(Korva::IpGenAddr(ip6), mac), "ArpGenEntry",
             "'ipGenAddr': " + valueToStrep(Korva::IpGenAddr(ip6)) + ", " + m);
  expectText(
      ArpGenEntryStatus(Korva::IpGenAddr(ip), mac, true), "ArpGenEntryStatus",
      "'ipGenAddr': " + valueToStrep(Korva::IpGenAddr(ip)) + ", " + m + ", 'isStatic': True");
  expectText(ArpMacAddrPair(mac, EthAddr(1, 2, 3)), "ArpMacAddrPair",
             "'eth': " + valueToStrep(mac) + ", 'arp': " + valueToStrep(EthAddr(1, 2, 3)));
  expectText(NeighborEntry(ip6, mac, true, evpn), "NeighborEntry",
             i6 + ", " + m + ", 'isHostRoute': True, 'source': evpn");
  const NeighborEntryKey key(ip6, et);
  const std::string keyText = i6 + ", 'intfId': " + Korva::valueToStrep(et);
  expectText(key, "NeighborEntryKey", keyText);
  expectText(
      NeighborEntryConfigInput(key, mac, evpn), "NeighborEntryConfigInput",
      "'key': Value('Arp::NeighborEntryKey', ** {" + keyText + "}), " + m + ", 'source': evpn");
  expectText(NeighborEntryStatus(ip6, mac, true, evpn), "NeighborEntryStatus",
             i6 + ", " + m + ", 'isStatic': True, 'source': evpn");
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

TEST_F(ArpModel, KeyedCollectionsReplaceByKey) {
  auto vrf = arpInputVrfConfigFactory("blue");
  const IpAddr ip(10, 0, 0, 1);
  vrf->ipv4Is(ArpEntryInput(ip, EthAddr(0, 0, 1), false, ArpSource()));
  vrf->ipv4Is(ArpEntryInput(ip, EthAddr(0, 0, 2), false, ArpSource(Id::cli)));
  EXPECT_EQ(vrf->ipv4Size(), 1u);
  EXPECT_EQ(vrf->ipv4(ip).ethAddr(), EthAddr(0, 0, 2));
  auto intf = arpIntfStatusFactory("Ethernet1");
  intf->ip6NeighborEntryIs(NeighborEntryStatus(Ip6Addr("fd00::1"), EthAddr(), false, ArpSource()));
  EXPECT_EQ(intf->ip6NeighborEntrySize(), 1u);
  auto dir = RibNextHop::responseDirFactory("responses");
  auto other = RibNextHop::responseSetFactory("other");
  dir->vrfIs("default", other);
  EXPECT_EQ(dir->vrf("default"), other);
  EXPECT_EQ(Hardware::statusFactory("hw")->arpTableSize(), 0u);
}

class TriggerWatcher : public MonitoredNexthop::NexthopReqEntry::Notifiee {
 public:
  void onTriggerResolution() override { ++triggers; }
  int triggers = 0;
};

TEST_F(ArpModel, NextHopRequestsAreNamedAfterTheirKeyAndNotifyTriggers) {
  using MonitoredNexthop::Entry;
  auto dir = MonitoredNexthop::Input::vrfStatusDirFactory("client");
  auto requests = dir->newVrfStatus("default");
  const Entry entry(Korva::IpGenAddr(IpAddr(10, 0, 0, 9)), IntfId("Ethernet2"));
  auto request = requests->newNextHop(entry);
  EXPECT_EQ(request->name(), valueToStrep(entry));
  EXPECT_EQ(request->entry(), entry);
  EXPECT_EQ(requests->newNextHop(entry), request);
  TriggerWatcher watcher;
  watcher.notifierIs(request.get());
  request->triggerResolutionIs(1);
  request->triggerResolutionIs(1);
  request->triggerResolutionIs(2);
  EXPECT_EQ(watcher.triggers, 2);
  auto aggregate = MonitoredNexthop::vrfStatusDirFactory("agg")->newVrfStatus("red");
  aggregate->newNextHop(entry)->clientIs("client", true);
  EXPECT_EQ(aggregate->nextHop(entry)->name(), valueToStrep(entry));
  EXPECT_TRUE(aggregate->nextHop(entry)->client("client"));
}

}  // namespace
}  // namespace Arp
