#pragma once
// Publishes the kernel's neighbour table of one network namespace into the shared ARP
// table: first a dump of the interfaces and of the IPv4 and IPv6 neighbours, then every
// change the kernel announces (rtnetlink), on the caller's event loop. An entry's VRF id is
// 0 unless its interface is enslaved to a kernel VRF device, whose name gets its id from
// the VRF id map's writer; its interface id comes from the kernel device name (et3_1 is
// Ethernet3/1), and neighbours of devices without a switch name (lo, veth0) are left out.
// Entries with a link-layer address are published (permanent ones as static, with source
// cli; the rest as learned, source dynamic); failed and incomplete ones are removed. After
// each dump, table entries the kernel no longer has are removed, so the table follows the
// kernel also across a restart of the publisher or an overrun of the netlink socket.
//
//   KernelNeighbors publisher(arpTable, vrfWriter, Korva::NamespaceName("blue-ns"));
//   Mox::runUntil([&] { return publisher.synced(); }, 5.0);

#include <Arp/ArpTable.h>
#include <Korva/Netns.h>
#include <Mox/FileDescriptor.h>
#include <Vrf/VrfIdMap.h>

#include <linux/netlink.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Arp {

// One neighbour message (RTM_NEWNEIGH or RTM_DELNEIGH) as the kernel's bytes hold it.
struct NeighborMessage {
  Mox::U16 type = 0;
  Mox::U8 family = 0;
  int ifindex = 0;
  Mox::U16 state = 0;
  Mox::U8 flags = 0;
  // Only for IPv4 and IPv6, from a destination attribute of the family's size.
  std::optional<Korva::IpGenAddr> addr;
  std::optional<Korva::EthAddr> ethAddr;
};

// Calls fn for each whole message in one datagram (`data` aligned for its headers) and
// returns how many bytes at the end form no whole message.
size_t forEachNetlinkMessage(const nlmsghdr* data, size_t length,
                             const std::function<void(const nlmsghdr&)>& fn);
// Decodes a neighbour message; none when it is too short for its fixed header.
std::optional<NeighborMessage> parseNeighbor(const nlmsghdr& message);

class KernelNeighbors {
 public:
  // Opens and subscribes the namespace's route socket and asks for the first dump; throws
  // Mox::ErrnoException naming the failed step (closing what it opened).
  KernelNeighbors(const Mox::Ptr<Table::Status>& table, const Mox::Ptr<Vrf::VrfIdMap::Writer>& vrfs,
                  const Korva::NamespaceName& netNs);
  ~KernelNeighbors();
  KernelNeighbors(const KernelNeighbors&) = delete;
  KernelNeighbors& operator=(const KernelNeighbors&) = delete;

  // The first dump is in the table.
  bool synced() const noexcept { return synced_; }
  // Neighbours left out (interface without a switch name, table full) and messages that
  // did not decode; each is traced.
  Mox::U64 skipped() const noexcept { return skipped_; }
  Mox::U64 malformed() const noexcept { return malformed_; }
  // Entries published now.
  size_t size() const noexcept { return published_.size(); }
  // Handles one datagram of rtnetlink messages as the socket delivers it (the reactor's
  // path; exposed so that damaged input can be tried without a kernel that sends it).
  void handleDatagram(const void* data, size_t length);

 private:
  class Reactor;
  struct Link {
    std::string name;
    int master = 0;
    bool isVrf = false;
  };
  // A neighbour as the kernel knows it: interface index and address.
  using Neighbor = std::pair<int, Korva::IpGenAddr>;
  enum class Phase { links, neighbors, live };

  // Asks for a dump of links or neighbours; false (traced) when the request was not sent.
  bool requestDump(Mox::U16 type);
  void readAll();
  void handle(const nlmsghdr& message);
  void handleLink(const nlmsghdr& message);
  void handleNeighbor(const nlmsghdr& message);
  void dumpDone();
  void sweep();
  // Where a neighbour of the link goes in the table; false when it cannot go there.
  bool keyOf(int ifindex, const Korva::IpGenAddr& addr, Table::ArpKey* key);
  void publish(const Neighbor& neighbor, Korva::EthAddr ethAddr, bool isStatic);
  void withdraw(const Neighbor& neighbor);
  void rekey(int ifindex);
  void skip(const char* why, int ifindex);

  Mox::Ptr<Table::Status> table_;
  Mox::Ptr<Vrf::VrfIdMap::Writer> vrfs_;
  Mox::Ptr<Mox::FileDescriptor> fd_;
  std::unique_ptr<Reactor> reactor_;
  std::vector<nlmsghdr> buffer_;  // received datagrams, aligned for their headers
  std::unordered_map<int, Link> links_;
  std::map<Neighbor, Table::ArpEntry> published_;
  std::set<Table::ArpKey> seen_;  // keys published since the neighbour dump began
  Phase phase_ = Phase::links;
  Mox::U32 sequence_ = 0;
  bool synced_ = false;
  Mox::U64 skipped_ = 0;
  Mox::U64 malformed_ = 0;
};

}  // namespace Arp
