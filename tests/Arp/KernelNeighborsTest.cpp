// The kernel publisher against a real kernel: neighbours added and removed with `ip neigh`
// in a throwaway namespace, and damaged netlink input.
#include "Korva/SocketTestUtil.h"

#include <Arp/KernelNeighbors.h>
#include <Cairn/Segment.h>
#include <Korva/IntfIdDesc.h>
#include <Mox/Activity.h>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstring>
#include <random>
#include <vector>

namespace Arp {
namespace {

using Table::ArpEntry;
using Table::ArpKey;
using Vrf::VrfIdMap::VrfId;

class KernelNeighborsTest : public testing::Test {
 protected:
  void SetUp() override {
    Korva::IntfIdMgr::ensureInitialized();
    if (!ns_.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create namespaces";
    ASSERT_TRUE(ns_.ip("link add et1 type veth peer name et2"));
    ASSERT_TRUE(ns_.ip("link set et1 up") && ns_.ip("link set et2 up"));
  }
  void TearDown() override {
    publisher_ = nullptr;
    Table::Status::remove(table_);
    Cairn::removeTable(vrfTable_);
    Cairn::NamedSegment::remove(vrfTable_);
  }
  void start() {
    publisher_ = std::make_unique<KernelNeighbors>(arp_, vrfs_, Korva::NamespaceName(ns_.name()));
    ASSERT_TRUE(Mox::runUntil([&] { return publisher_->synced(); }, 5.0));
  }
  ArpEntry entry(bool isArp, VrfId vrfId, const char* intf, const char* addr) {
    return arp_->entryMap(isArp).find(ArpKey(vrfId, Korva::IntfId(intf), Korva::IpGenAddr(addr)));
  }
  bool present(bool isArp, const char* intf, const char* addr, VrfId vrfId = VrfId(0)) {
    return entry(isArp, vrfId, intf, addr) != ArpEntry();
  }

  SocketTest::ScopedNs ns_{"arp"};
  const std::string table_ = "test-kn-" + std::to_string(getpid());
  const std::string vrfTable_ = "test-knvrf-" + std::to_string(getpid());
  Mox::Ptr<Table::Status> arp_ = Table::statusFactory(table_, 256);
  Mox::Ptr<Vrf::VrfIdMap::Writer> vrfs_ =
      Vrf::VrfIdMap::writerFactory(Vrf::VrfIdMap::statusFactory(vrfTable_), vrfTable_);
  std::unique_ptr<KernelNeighbors> publisher_;
};

TEST_F(KernelNeighborsTest, FollowsIpNeighInBothFamilies) {
  ASSERT_TRUE(ns_.ip("neigh add 10.0.0.5 lladdr 00:00:00:00:00:05 dev et1 nud permanent"));
  // Left by an earlier run: the first dump removes it.
  const ArpKey stale(VrfId(0), Korva::IntfId("Ethernet9"), Korva::IpGenAddr("10.9.9.9"));
  arp_->arpEntryIs(ArpEntry(stale, Korva::EthAddr(0, 0, 9), false, false, ArpSource()));
  start();
  const ArpEntry before = entry(true, VrfId(0), "Ethernet1", "10.0.0.5");
  EXPECT_EQ(before.ethAddr(), Korva::EthAddr(0, 0, 5));
  EXPECT_TRUE(before.isStatic());
  EXPECT_EQ(before.source(), ArpSource(ArpSource::ArpSourceId::cli));
  EXPECT_EQ(arp_->arpEntry(stale), ArpEntry());

  ASSERT_TRUE(ns_.ip("neigh add fd00::7 lladdr 00:00:00:00:00:07 dev et2 nud reachable"));
  ASSERT_TRUE(ns_.ip("neigh add 10.0.0.6 lladdr 00:00:00:00:00:06 dev et2 nud stale"));
  ASSERT_TRUE(Mox::runUntil(
      [&] {
        return present(false, "Ethernet2", "fd00::7") && present(true, "Ethernet2", "10.0.0.6");
      },
      5.0));
  EXPECT_FALSE(entry(false, VrfId(0), "Ethernet2", "fd00::7").isStatic());

  ASSERT_TRUE(ns_.ip("neigh del fd00::7 dev et2") && ns_.ip("neigh del 10.0.0.5 dev et1"));
  ASSERT_TRUE(Mox::runUntil(
      [&] {
        return !present(false, "Ethernet2", "fd00::7") && !present(true, "Ethernet1", "10.0.0.5");
      },
      5.0));
  EXPECT_TRUE(present(true, "Ethernet2", "10.0.0.6"));
  EXPECT_EQ(publisher_->size(), 1u);
}

// An RTM_NEWLINK message: the interface's name, master and kind.
std::vector<Mox::U8> linkMessage(int ifindex, const char* name, int master, const char* kind) {
  std::vector<Mox::U8> bytes(NLMSG_LENGTH(sizeof(ifinfomsg)));
  auto add = [&](std::vector<Mox::U8>& to, Mox::U16 type, const void* data, size_t size) {
    const size_t at = to.size();
    to.resize(at + RTA_SPACE(size));
    auto* attribute = reinterpret_cast<rtattr*>(to.data() + at);
    attribute->rta_type = type;
    attribute->rta_len = static_cast<Mox::U16>(RTA_LENGTH(size));
    std::memcpy(RTA_DATA(attribute), data, size);
  };
  add(bytes, IFLA_IFNAME, name, std::strlen(name) + 1);
  if (master) add(bytes, IFLA_MASTER, &master, sizeof master);
  std::vector<Mox::U8> info;
  add(info, IFLA_INFO_KIND, kind, std::strlen(kind) + 1);
  add(bytes, IFLA_LINKINFO, info.data(), info.size());
  auto* header = reinterpret_cast<nlmsghdr*>(bytes.data());
  header->nlmsg_len = static_cast<Mox::U32>(bytes.size());
  header->nlmsg_type = RTM_NEWLINK;
  reinterpret_cast<ifinfomsg*>(NLMSG_DATA(header))->ifi_index = ifindex;
  return bytes;
}

TEST_F(KernelNeighborsTest, KernelVrfDeviceGivesTheVrfId) {
  // Where the kernel has no VRF devices, the publisher is told of one as the kernel would.
  const bool kernelVrf = ns_.ip("link add vrfblue type vrf table 10");
  int et2 = 0;
  SocketTest::runInNs(ns_, [&] { et2 = static_cast<int>(if_nametoindex("et2")); });
  auto enslave = [&](bool on) {
    if (kernelVrf) return ns_.ip(on ? "link set et2 master vrfblue" : "link set et2 nomaster");
    const auto vrf = linkMessage(9999, "vrfblue", 0, "vrf");
    const auto link = linkMessage(et2, "et2", on ? 9999 : 0, "veth");
    publisher_->handleDatagram(vrf.data(), vrf.size());
    publisher_->handleDatagram(link.data(), link.size());
    return true;
  };
  start();
  ASSERT_TRUE(enslave(true));
  ASSERT_TRUE(ns_.ip("neigh add 10.1.0.1 lladdr 00:00:00:00:00:01 dev et2 nud permanent"));
  const VrfId blue = vrfs_->vrfIs("vrfblue");
  EXPECT_NE(blue, VrfId(0));
  ASSERT_TRUE(Mox::runUntil([&] { return present(true, "Ethernet2", "10.1.0.1", blue); }, 5.0));
  ASSERT_TRUE(enslave(false));  // the neighbour moves to the default VRF
  EXPECT_TRUE(Mox::runUntil([&] { return present(true, "Ethernet2", "10.1.0.1"); }, 5.0));
  EXPECT_FALSE(present(true, "Ethernet2", "10.1.0.1", blue));
}

// One RTM_NEWNEIGH message as the kernel sends it.
std::vector<Mox::U8> newNeighborMessage(int ifindex) {
  std::vector<Mox::U8> bytes(NLMSG_LENGTH(sizeof(ndmsg)) + RTA_SPACE(4) + RTA_SPACE(6));
  auto* header = reinterpret_cast<nlmsghdr*>(bytes.data());
  header->nlmsg_len = static_cast<Mox::U32>(bytes.size());
  header->nlmsg_type = RTM_NEWNEIGH;
  auto* neighbor = static_cast<ndmsg*>(NLMSG_DATA(header));
  neighbor->ndm_family = AF_INET;
  neighbor->ndm_ifindex = ifindex;
  neighbor->ndm_state = NUD_REACHABLE;
  auto* dst = reinterpret_cast<rtattr*>(bytes.data() + NLMSG_LENGTH(sizeof(ndmsg)));
  dst->rta_type = NDA_DST;
  dst->rta_len = RTA_LENGTH(4);
  std::memcpy(RTA_DATA(dst), "\x0a\x00\x00\x07", 4);
  auto* lladdr = reinterpret_cast<rtattr*>(reinterpret_cast<Mox::U8*>(dst) + RTA_SPACE(4));
  lladdr->rta_type = NDA_LLADDR;
  lladdr->rta_len = RTA_LENGTH(6);
  std::memcpy(RTA_DATA(lladdr), "\x00\x00\x00\x00\x00\x07", 6);
  return bytes;
}

TEST_F(KernelNeighborsTest, DamagedMessagesAreCountedNeverTrusted) {
  start();
  const std::vector<Mox::U8> whole = newNeighborMessage(0);  // no interface has index 0
  std::mt19937 random(3);
  for (size_t cut = 0; cut < whole.size(); ++cut) publisher_->handleDatagram(whole.data(), cut);
  for (int round = 0; round < 2000; ++round) {
    std::vector<Mox::U8> bytes = whole;
    for (int flips = 0; flips < 3; ++flips) bytes[random() % bytes.size()] = Mox::U8(random());
    publisher_->handleDatagram(bytes.data(), bytes.size());
  }
  EXPECT_GT(publisher_->malformed(), 0u);
  // A whole message for an interface the namespace has is published.
  int et1 = 0;
  SocketTest::runInNs(ns_, [&] { et1 = static_cast<int>(if_nametoindex("et1")); });
  std::vector<Mox::U8> real = newNeighborMessage(et1);
  publisher_->handleDatagram(real.data(), real.size());
  EXPECT_TRUE(present(true, "Ethernet1", "10.0.0.7"));
  // The same neighbour in a state without any bit set is no longer usable.
  static_cast<ndmsg*>(NLMSG_DATA(reinterpret_cast<nlmsghdr*>(real.data())))->ndm_state = NUD_NONE;
  publisher_->handleDatagram(real.data(), real.size());
  EXPECT_FALSE(present(true, "Ethernet1", "10.0.0.7"));
}

// A last message without its padding ends the walk: nothing past the datagram is read as
// another message.
TEST(KernelNeighborsWalk, AnUnpaddedLastMessageEndsTheDatagram) {
  std::vector<nlmsghdr> buffer(3);
  buffer[0].nlmsg_len = NLMSG_HDRLEN + 1;
  buffer[1].nlmsg_len = NLMSG_HDRLEN;  // just past the datagram's end
  for (size_t length : {size_t(NLMSG_HDRLEN + 1), size_t(NLMSG_HDRLEN + 3)}) {
    int messages = 0;
    EXPECT_EQ(forEachNetlinkMessage(buffer.data(), length, [&](const nlmsghdr&) { ++messages; }),
              0u);
    EXPECT_EQ(messages, 1) << length;
  }
}

}  // namespace
}  // namespace Arp
