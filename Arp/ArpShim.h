#pragma once
// Arp::ArpShimSm keeps an agent's ARP object tree in step with the shared ARP table: each
// entry's VRF id becomes a VRF name through the VRF id map, and the entry lands in
// arpVrfStatusDir -> vrfStatus(VRF name) -> arpIntfStatus(long interface name) as an
// arpEntry (IPv4) or ip6NeighborEntry (IPv6). The shim serves one VRF or all of them, and
// IPv4, IPv6 or both. Entries whose VRF has no name yet wait in the table: when the name
// appears, the shim replays the table for that VRF.
//
//   auto shim = Arp::arpShimSmFactory(arpTable, vrfIdStatus, "", true, true,
//                                     Arp::neighborDirFactory("default"), vrfStatusDir);
//   ... the loop runs; vrfStatusDir->vrfStatus("blue")->arpIntfStatus("Ethernet1") ...
//
// Whose status is the given arpStatus: the VRF the shim serves, or "default" when it serves
// every VRF; other VRFs get statuses of their own.

#include <Arp/ArpShim.mox.h>

#include <memory>
#include <unordered_map>

namespace Arp {

class ArpShimSm : public ArpShimSmBase {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  ~ArpShimSm() override;

  // True for every VRF when the shim serves all of them, else for its own name only.
  bool isVrfOfInterest(const Mox::String8& name) const;
  // Follow one changed key of the IPv4 (arpEntry) or IPv6 (neighborEntry) map.
  void handleArpEntry(const Table::ArpKey& key);
  void handleNeighEntry(const Table::ArpKey& key);
  // Follow the VRF id map: a VRF got an id, lost it, or changed.
  void handleVrfCreate(const Mox::String8& name, VrfId vrfId);
  void handleVrfDelete(const Mox::String8& name);
  void handleVrfName(const Mox::String8& name);

 protected:
  ArpShimSm(const Mox::Ptr<Table::Status>& arpCairn,
            const Mox::Ptr<Vrf::VrfIdMap::Status>& vrfIdStatus, const Mox::String8& vrfName,
            bool v4, bool v6, const Mox::Ptr<NeighborDir>& arpStatus,
            const Mox::Ptr<ArpVrfStatusDir>& arpVrfStatusDir);
  // Follows the VRF id map and the table, then adds every entry already there.
  void handleInitialized();
  void addArpOrNeighEntry(const Table::ArpEntry& entry, bool isArp);
  void delArpOrNeighEntry(const Table::ArpKey& key, bool isArp);

 private:
  class TableReactor;
  class VrfReactor;
  friend Mox::Ptr<ArpShimSm> arpShimSmFactory(const Mox::Ptr<Table::Status>&,
                                              const Mox::Ptr<Vrf::VrfIdMap::Status>&,
                                              const Mox::String8&, bool, bool,
                                              const Mox::Ptr<NeighborDir>&,
                                              const Mox::Ptr<ArpVrfStatusDir>&);

  // `entry` is the key's entry as read from the table, the empty entry when it has none.
  void handleEntry(const Table::ArpKey& key, const Table::ArpEntry& entry, bool isArp);
  // The VRF's name when the entry's family is served and the VRF is known and of interest;
  // null otherwise (traced).
  const Mox::String8* vrfNameOf(VrfId vrfId, bool isArp) const;
  Mox::Ptr<NeighborDir> vrfStatus(const Mox::String8& name);
  void storeEntry(const Mox::Ptr<NeighborDir>& vrfStatus, const Table::ArpEntry& entry, bool isArp);
  void replay(const Mox::String8& name, VrfId vrfId, bool isArp);
  const Mox::String8& intfName(Korva::IntfId intfId);

  std::unique_ptr<TableReactor> v4Reactor_;
  std::unique_ptr<TableReactor> v6Reactor_;
  std::unique_ptr<VrfReactor> vrfReactor_;
  std::unordered_map<Korva::IntfId, Mox::String8> intfNames_;  // long names, once each
};

// A shim of `arpCairn` translating VRF ids through `vrfIdStatus`'s table; it starts at
// once. Raises Mox::RangeException "null ValidPtr" without a table or VRF id map.
Mox::Ptr<ArpShimSm> arpShimSmFactory(const Mox::Ptr<Table::Status>& arpCairn,
                                     const Mox::Ptr<Vrf::VrfIdMap::Status>& vrfIdStatus,
                                     const Mox::String8& vrfName, bool v4, bool v6,
                                     const Mox::Ptr<NeighborDir>& arpStatus,
                                     const Mox::Ptr<ArpVrfStatusDir>& arpVrfStatusDir);

}  // namespace Arp
