#include <Arp/ArpShim.h>

#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

namespace Arp {

namespace {

Mox::TraceHandle trace("ArpShim");

const Mox::String8 defaultVrfName = "default";

}  // namespace

// Hands each changed entry of one shared map to the shim. The watcher has just read it
// (reporting a damaged entry to the corruption handler and passing it as absent), so the
// shim takes that reading rather than looking the key up again.
class ArpShimSm::TableReactor : public Table::EntryMap::Watcher::Notifiee {
 public:
  TableReactor(ArpShimSm& shim, bool isArp) : shim_(shim), isArp_(isArp) {}
  void onEntry(const Table::ArpKey& key, const Table::ArpEntry* entry) override {
    MOX_TRACE(trace, 5, (isArp_ ? "handleArpEntry key: " : "handleNeighEntry key: ") << key);
    shim_.handleEntry(key, entry ? *entry : Table::ArpEntry(), isArp_);
  }

 private:
  ArpShimSm& shim_;
  bool isArp_;
};

// Hands each VRF name that got, changed or lost its id to the shim.
class ArpShimSm::VrfReactor : public Vrf::VrfIdMap::NameToIdMap::Notifiee {
 public:
  explicit VrfReactor(ArpShimSm& shim) : shim_(shim) {}
  void onVrfNameToId(const Mox::String8& name) override { shim_.handleVrfName(name); }

 private:
  ArpShimSm& shim_;
};

ArpShimSm::ArpShimSm(const Mox::Ptr<Table::Status>& arpCairn,
                     const Mox::Ptr<Vrf::VrfIdMap::Status>& vrfIdStatus,
                     const Mox::String8& vrfName, bool v4, bool v6,
                     const Mox::Ptr<NeighborDir>& arpStatus,
                     const Mox::Ptr<ArpVrfStatusDir>& arpVrfStatusDir)
    : ArpShimSmBase(vrfIdStatus, vrfName, v4, v6, arpStatus, arpVrfStatusDir) {
  arpCairnIs(arpCairn);
}

Mox::Ptr<ArpShimSm> arpShimSmFactory(const Mox::Ptr<Table::Status>& arpCairn,
                                     const Mox::Ptr<Vrf::VrfIdMap::Status>& vrfIdStatus,
                                     const Mox::String8& vrfName, bool v4, bool v6,
                                     const Mox::Ptr<NeighborDir>& arpStatus,
                                     const Mox::Ptr<ArpVrfStatusDir>& arpVrfStatusDir) {
  if (!arpCairn || !vrfIdStatus) throw Mox::RangeException("null ValidPtr");
  Mox::Ptr<ArpShimSm> shim(
      new ArpShimSm(arpCairn, vrfIdStatus, vrfName, v4, v6, arpStatus, arpVrfStatusDir));
  shim->handleInitialized();
  return shim;
}

ArpShimSm::~ArpShimSm() {
  // The VRF side first, then the table; the object tree stays as it is.
  vrfReactor_ = nullptr;
  vrfIdReverseMapperDel();
  vrfNameToIdMapDel();
  v4Reactor_ = nullptr;
  v6Reactor_ = nullptr;
  arpCairnDel();
}

void ArpShimSm::handleInitialized() {
  MOX_ASSERT(arpStatus());
  MOX_ASSERT(arpVrfStatusDir());
  MOX_ASSERT(v4() || v6());
  MOX_TRACE(trace, 3, "handleInitialized vrf: " << (vrfName().empty() ? "<ALL>" : vrfName()));
  vrfNameToIdMapIs(Vrf::VrfIdMap::nameToIdMapFactory("ArpShimSm"));
  vrfReactor_ = std::make_unique<VrfReactor>(*this);
  vrfReactor_->notifierIs(vrfNameToIdMap().get());
  vrfIdReverseMapperIs(Vrf::VrfIdMap::reverseMapperFactory(vrfIdStatus(), vrfNameToIdMap()));
  // The names known now come before any entry (their creation finds the shim not yet
  // initialised): each VRF of interest gets its status here, as a VRF named later does, and
  // the initial walks below bring their entries, which a replay per VRF would only repeat.
  vrfIdReverseMapper()->watcher()->sync();
  initializedIs(true);
  for (const auto& [name, vrfId] : vrfNameToIdMap()->vrfNameToIdColl()) {
    if (isVrfOfInterest(name)) vrfStatus(name);
  }
  // Each watcher's first report is the whole map: the initial walk, IPv4 first.
  auto v4Watcher = arpCairn()->arpEntryWatcher();
  auto v6Watcher = arpCairn()->neighborEntryWatcher();
  v4Reactor_ = std::make_unique<TableReactor>(*this, true);
  v4Reactor_->notifierIs(v4Watcher);
  v6Reactor_ = std::make_unique<TableReactor>(*this, false);
  v6Reactor_->notifierIs(v6Watcher);
  v4Watcher->sync();
  v6Watcher->sync();
}

bool ArpShimSm::isVrfOfInterest(const Mox::String8& name) const {
  return vrfName().empty() || vrfName() == name;
}

void ArpShimSm::handleArpEntry(const Table::ArpKey& key) {
  MOX_TRACE(trace, 5, "handleArpEntry key: " << key);
  handleEntry(key, arpCairn()->arpEntry().find(key), true);
}

void ArpShimSm::handleNeighEntry(const Table::ArpKey& key) {
  MOX_TRACE(trace, 5, "handleNeighEntry key: " << key);
  handleEntry(key, arpCairn()->neighborEntry().find(key), false);
}

void ArpShimSm::handleEntry(const Table::ArpKey& key, const Table::ArpEntry& entry, bool isArp) {
  if (entry == Table::ArpEntry()) return delArpOrNeighEntry(key, isArp);
  addArpOrNeighEntry(entry, isArp);
}

const Mox::String8* ArpShimSm::vrfNameOf(VrfId vrfId, bool isArp) const {
  if (isArp ? !v4() : !v6()) {
    MOX_TRACE(trace, 5, "  don't care about this IP version");
    return nullptr;
  }
  const Mox::String8* name = &defaultVrfName;
  if (vrfId != VrfId::defaultVrf()) {
    const auto& names = vrfIdReverseMapper()->vrfIdToNameCacheColl();
    const auto found = names.find(vrfId);
    if (found == names.end()) {
      MOX_TRACE(trace, 5, "  can't find vrf name for vrf id: " << vrfId);
      return nullptr;
    }
    name = &found->second;
  }
  if (!isVrfOfInterest(*name)) {
    MOX_TRACE(trace, 5, " update not for vrf of interest: " << *name);
    return nullptr;
  }
  return name;
}

void ArpShimSm::addArpOrNeighEntry(const Table::ArpEntry& entry, bool isArp) {
  MOX_TRACE(trace, 5, " arp entry: " << entry);
  const Mox::String8* name = vrfNameOf(entry.key().vrfId(), isArp);
  if (name) storeEntry(vrfStatus(*name), entry, isArp);
}

Mox::Ptr<NeighborDir> ArpShimSm::vrfStatus(const Mox::String8& name) {
  if (Mox::Ptr<NeighborDir> status = arpVrfStatusDir()->vrfStatus(name)) return status;
  MOX_TRACE(trace, 5, "  creating vrfStatus for vrf " << name);
  const bool own = vrfName().empty() ? name == defaultVrfName : name == vrfName();
  if (!own) return arpVrfStatusDir()->newVrfStatus(name);
  arpVrfStatusDir()->vrfStatusIs(name, arpStatus());
  return arpStatus();
}

const Mox::String8& ArpShimSm::intfName(Korva::IntfId intfId) {
  auto [found, added] = intfNames_.try_emplace(intfId);
  if (added) found->second = intfId.stringValue();
  return found->second;
}

void ArpShimSm::storeEntry(const Mox::Ptr<NeighborDir>& vrfStatus, const Table::ArpEntry& entry,
                           bool isArp) {
  const Mox::String8& intf = intfName(entry.key().intfId());
  Mox::Ptr<ArpIntfStatus> intfStatus = vrfStatus->arpIntfStatus(intf);
  if (!intfStatus) {
    MOX_TRACE(trace, 5, "  creating arpIntfStatus for " << intf);
    intfStatus = vrfStatus->newArpIntfStatus(intf);
  }
  const Korva::IpGenAddr& addr = entry.key().addr();
  if (isArp) {
    intfStatus->arpEntryIs(ArpEntryStatus(addr.v4Addr(), entry.ethAddr(), entry.isHostRoute(),
                                          entry.source(), entry.isStatic()));
  } else {
    intfStatus->ip6NeighborEntryIs(
        NeighborEntryStatus(addr.v6Addr(), entry.ethAddr(), entry.isStatic(), entry.source()));
  }
}

void ArpShimSm::delArpOrNeighEntry(const Table::ArpKey& key, bool isArp) {
  MOX_TRACE(trace, 5, " arp key: " << key);
  const Mox::String8* name = vrfNameOf(key.vrfId(), isArp);
  if (!name) return;
  const Mox::Ptr<NeighborDir> vrfStatus = arpVrfStatusDir()->vrfStatus(*name);
  if (!vrfStatus) {
    MOX_TRACE(trace, 5, "  can't find vrfStatus entry for vrf " << *name);
    return;
  }
  const Mox::String8& intf = intfName(key.intfId());
  const Mox::Ptr<ArpIntfStatus> intfStatus = vrfStatus->arpIntfStatus(intf);
  if (!intfStatus) {
    MOX_TRACE(trace, 5, "  can't find arpIntfStatus entry for " << intf);
    return;
  }
  if (isArp) {
    intfStatus->arpEntryDel(key.addr().v4Addr());
  } else {
    intfStatus->ip6NeighborEntryDel(key.addr().v6Addr());
  }
}

void ArpShimSm::handleVrfCreate(const Mox::String8& name, VrfId vrfId) {
  MOX_TRACE(trace, 3, " vrf: " << name << " id: " << vrfId);
  if (!initialized()) {
    MOX_TRACE(trace, 3, "  shim sm not initialized");
    return;
  }
  if (!isVrfOfInterest(name)) return;
  vrfStatus(name);
  if (v4()) replay(name, vrfId, true);
  if (v6()) replay(name, vrfId, false);
}

// Adds the entries of one VRF that are in the table, which may have come before its name.
void ArpShimSm::replay(const Mox::String8& name, VrfId vrfId, bool isArp) {
  const Mox::Ptr<NeighborDir> status = vrfStatus(name);
  arpCairn()->entryMap(isArp).forEach([&](const Table::ArpEntry& entry) {
    if (entry.key().vrfId() != vrfId) {
      MOX_TRACE(trace, 8, " update not for vrf of interest: " << entry.key().vrfId());
      return;
    }
    MOX_TRACE(trace, 5,
              "  adding " << (isArp ? "arp" : "neighbor") << " entry on vrf " << name << ", "
                          << intfName(entry.key().intfId()) << ": " << entry);
    storeEntry(status, entry, isArp);
  });
}

void ArpShimSm::handleVrfDelete(const Mox::String8& name) {
  MOX_TRACE(trace, 3, " vrf: " << name);
  if (name == defaultVrfName) return;
  const Mox::Ptr<NeighborDir> status = arpVrfStatusDir()->vrfStatus(name);
  if (!status) {
    MOX_TRACE(trace, 3, "  can't find vrfStatus entry for vrf " << name);
    return;
  }
  // Whoever still holds the VRF's status sees its entries go with it.
  status->arpIntfStatusDelAll();
  arpVrfStatusDir()->vrfStatusDel(name);
}

void ArpShimSm::handleVrfName(const Mox::String8& name) {
  if (!isVrfOfInterest(name)) {
    MOX_TRACE(trace, 3, " update not for vrf of interest: " << name);
    return;
  }
  const auto& ids = vrfNameToIdMap()->vrfNameToIdColl();
  const auto found = ids.find(name);
  if (found != ids.end()) return handleVrfCreate(name, found->second);
  handleVrfDelete(name);
}

}  // namespace Arp
