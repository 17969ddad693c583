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

class VirtualMacWatcher : public VirtualMacStatus::Notifiee {
 public:
  explicit VirtualMacWatcher(VirtualMacStatus* status) { notifierIs(status); }
  void onVirtualMac(const IntfId& intfId) override { seen.push_back(intfId); }
  std::vector<IntfId> seen;
};

TEST(ProxyArpModel, OneVirtualMacPerInterface) {
  Korva::IntfIdMgr::ensureInitialized();
  auto status = virtualMacStatusFactory("proxyArp");
  VirtualMacWatcher watcher(status.get());
  const IntfId et1("Ethernet1"), et2("Ethernet2/1");
  const VirtualMac second(et1, EthAddr(0x0000, 0x5e00, 0x0102), false);
  status->newVirtualMac(VirtualMac(et1, EthAddr(0x0000, 0x5e00, 0x0101), true));
  status->virtualMacIs(second);
  status->virtualMacIs(VirtualMac(et2, EthAddr(0x0000, 0x5e00, 0x0103), true));
  status->virtualMacIs(VirtualMac(et2, EthAddr(0x0000, 0x5e00, 0x0103), true));
  EXPECT_EQ(status->virtualMacSize(), 2u);
  EXPECT_EQ(status->virtualMac(et1), second);
  // A missing interface gives the default value, with a null interface, not the one asked for.
  EXPECT_EQ(status->virtualMac(IntfId("Ethernet7")), VirtualMac());
  status->virtualMacDel(et1);
  status->virtualMacDelAll();
  EXPECT_EQ(watcher.seen, (std::vector<IntfId>{et1, et1, et2, et1, et2}));
  VirtualMac parsed;
  parsed.stringValueIs(second.stringValue());
  EXPECT_EQ(parsed, second);
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
