// The proxy-ARP virtual MAC model (models/Arp/ProxyArp.mox) and the interface flag set
// (models/Korva/IntfIdNoLogColl.mox): generated collections keyed by interface.

#include <Arp/ProxyArp.mox.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/IntfIdNoLogColl.mox.h>

#include <gtest/gtest.h>

#include <vector>

namespace ProxyArp {
namespace {

using Korva::EthAddr;
using Korva::IntfId;

class ProxyArpModel : public testing::Test {
 protected:
  void SetUp() override { Korva::IntfIdMgr::ensureInitialized(); }
};

class VirtualMacWatcher : public VirtualMacStatus::Notifiee {
 public:
  explicit VirtualMacWatcher(VirtualMacStatus* status) { notifierIs(status); }
  void onVirtualMac(const IntfId& intfId) override { seen.push_back(intfId); }
  std::vector<IntfId> seen;
};

TEST_F(ProxyArpModel, OneVirtualMacPerInterface) {
  auto status = virtualMacStatusFactory("proxyArp");
  VirtualMacWatcher watcher(status.get());
  const IntfId et1("Ethernet1"), et2("Ethernet2/1");
  status->newVirtualMac(VirtualMac(et1, EthAddr(0x0000, 0x5e00, 0x0101), true));
  status->virtualMacIs(VirtualMac(et1, EthAddr(0x0000, 0x5e00, 0x0102), false));
  status->virtualMacIs(VirtualMac(et2, EthAddr(0x0000, 0x5e00, 0x0103), true));
  status->virtualMacIs(VirtualMac(et2, EthAddr(0x0000, 0x5e00, 0x0103), true));
  EXPECT_EQ(status->virtualMacSize(), 2u);
  EXPECT_EQ(status->virtualMac(et1), VirtualMac(et1, EthAddr(0x0000, 0x5e00, 0x0102), false));
  // A missing interface gives the default value, with a null interface, not the one asked for.
  EXPECT_EQ(status->virtualMac(IntfId("Ethernet7")), VirtualMac());
  status->virtualMacDel(et1);
  status->virtualMacDelAll();
  EXPECT_EQ(watcher.seen, (std::vector<IntfId>{et1, et1, et2, et1, et2}));
}

TEST_F(ProxyArpModel, TextFormOrderAndHash) {
  const VirtualMac mac(IntfId("Ethernet3/1"), EthAddr(0x0011, 0x2233, 0x4455), true);
  const std::string text =
      "Value('ProxyArp::VirtualMac', ** {'intfId': " + Korva::valueToStrep(mac.intfId()) +
      ", 'vrMac': " + Korva::valueToStrep(mac.vrMac()) + ", 'active': True})";
  EXPECT_EQ(valueToStrep(mac), text);
  VirtualMac parsed;
  parsed.stringValueIs(text);
  EXPECT_EQ(parsed, mac);
  EXPECT_EQ(parsed.hash(), mac.hash());

  const VirtualMac inactive(mac.intfId(), mac.vrMac(), false);
  const VirtualMac lowerMac(mac.intfId(), EthAddr(0x0011, 0x2233, 0x4454), true);
  const VirtualMac lowerIntf(IntfId("Ethernet1"), EthAddr(0xffff, 0xffff, 0xffff), true);
  EXPECT_LT(inactive, mac);  // false before true
  EXPECT_LT(lowerMac, inactive);
  EXPECT_LT(lowerIntf, lowerMac);
}

TEST(IntfIdNoLogCollModel, FlagPerInterface) {
  Korva::IntfIdMgr::ensureInitialized();
  auto coll = Korva::intfIdNoLogCollFactory();
  EXPECT_EQ(coll->name(), "IntfIdNoLogColl");
  const IntfId et1("Ethernet1");
  EXPECT_FALSE(coll->newIntfId(et1, false));
  EXPECT_FALSE(coll->newIntfId(et1, true));  // present: kept
  coll->intfIdIs(et1, true);
  EXPECT_TRUE(coll->intfId(et1));
}

}  // namespace
}  // namespace ProxyArp
