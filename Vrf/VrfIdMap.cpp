#include <Vrf/VrfIdMap.h>

#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <cstdio>

namespace Vrf::VrfIdMap {

using Mox::String8;
using Mox::U32;

namespace {

Mox::TraceHandle trace("VrfIdMap");

constexpr size_t counterBytes = 4;

}  // namespace

// --- NameToIdMapWrapper ---

NameToIdMapWrapper::NameToIdMapWrapper(const Mox::Name& name) : NameToIdMapWrapperBase(name) {
  nameToIdMapIs(nameToIdMapFactory(name));
}

bool NameToIdMapWrapper::vrfIdExists(const String8& name) const {
  return nameToIdMap()->vrfNameToIdColl().count(name) != 0;
}

// --- Writer ---

Writer::Writer(const Mox::Ptr<Status>& status, const String8& writerName)
    : WriterBase(status, writerName) {
  handleInitialized();
}

Mox::Ptr<Writer> writerFactory(const Mox::Ptr<Status>& status, const String8& writerName) {
  if (!status) throw Mox::RangeException("null ValidPtr");
  return Mox::Ptr<Writer>(new Writer(status, writerName));
}

void Writer::attachCounter(bool create) {
  counter_ = std::make_unique<Cairn::NamedSegment>(writerName(), Cairn::Access{}, create);
  lastVrfIdPtr_ = static_cast<U32*>(counter_->attach(counterBytes));
}

void Writer::handleInitialized() {
  if (initialized()) return;
  Status::Table& table = status()->vrfIdToName();
  attachCounter(true);
  initializedIs(true);
  addDefaultVrf();
  // A restarted writer gives every VRF already published its old id. Damaged entries are
  // reported by the table and skipped.
  table.forEach(
      [this](const VrfId& vrfId, const VrfEntry& entry) { vrfNameToIdIs(entry.vrfName(), vrfId); });
}

VrfId Writer::vrfIs(const String8& name) {
  MOX_TRACE(trace, 3, "Writer::vrfIs " << name);
  MOX_ASSERT(initialized());
  const auto known = vrfNameToIdColl().find(name);
  if (known != vrfNameToIdColl().end()) return known->second;
  const VrfId vrfId = name == "default" ? VrfId::defaultVrf() : allocateVrfId();
  MOX_TRACE(trace, 3, " vrfName: " << name << " vrfId: " << vrfId);
  Status::Table& table = status()->vrfIdToName();
  try {
    table.set(vrfId, VrfEntry(vrfId, name));
  } catch (const Mox::MemoryLimitExceededException&) {
    VRF_MAP_OVERFLOW.log(table.size());
    return VrfId::null();
  }
  vrfNameToIdIs(name, vrfId);
  return vrfId;
}

VrfId Writer::allocateVrfId() {
  MOX_ASSERT(initialized());
  Status::Table& table = status()->vrfIdToName();
  const VrfId lastVrfId(*lastVrfIdPtr_);
  VrfId vrfId = lastVrfId;
  for (;;) {
    vrfId = VrfId(++*lastVrfIdPtr_);
    if (vrfId == lastVrfId) break;
    if (vrfId == VrfId::defaultVrf() || vrfId == VrfId::null()) continue;
    const std::optional<VrfEntry> entry = table.find(vrfId);
    if (!entry || *entry == VrfEntry()) break;
  }
  MOX_TRACE(trace, 3, " allocated vrfId " << vrfId);
  MOX_ASSERT(vrfId != lastVrfId);
  MOX_ASSERT(vrfId != Vrf::VrfIdMap::VrfId::defaultVrf());
  MOX_ASSERT(vrfId != Vrf::VrfIdMap::VrfId::null());
  return vrfId;
}

void Writer::vrfDel(const String8& name) {
  MOX_TRACE(trace, 3, "Writer::vrfDel " << name);
  MOX_ASSERT(initialized());
  if (name == "default") return;
  const auto known = vrfNameToIdColl().find(name);
  if (known == vrfNameToIdColl().end()) return;
  const VrfId vrfId = known->second;
  if (vrfId == VrfId::defaultVrf() || vrfId == VrfId::null()) return;
  status()->vrfIdToName().del(vrfId);
  vrfNameToIdDel(name);
}

void Writer::reset() {
  MOX_TRACE(trace, 3, "Writer::reset " << writerName());
  MOX_ASSERT(initialized());
  status()->vrfIdToName().clear();
  vrfNameToIdDelAll();
  counter_->detach();
  Cairn::NamedSegment::remove(writerName());
  attachCounter(true);
  addDefaultVrf();
}

void Writer::prepareVrfIdWrapAround() {
  MOX_ASSERT(initialized());
  *lastVrfIdPtr_ = VrfId::null().value();
}

// --- ReverseMapper ---

class ReverseMapper::TableReactor : public Status::Watcher::Notifiee {
 public:
  explicit TableReactor(ReverseMapper& mapper) : mapper_(mapper) {}
  void onEntry(const VrfId& vrfId, const VrfEntry* entry) override {
    mapper_.handleVrfIdToName(vrfId, entry);
  }

 private:
  ReverseMapper& mapper_;
};

ReverseMapper::ReverseMapper(const Mox::Ptr<Status>& status,
                             const Mox::Ptr<NameToIdMap>& nameToIdMap)
    : ReverseMapperBase(status, nameToIdMap),
      watcher_(status->vrfIdToNameWatcher()),
      reactor_(std::make_unique<TableReactor>(*this)) {
  reactor_->notifierIs(watcher_);
}

ReverseMapper::~ReverseMapper() = default;

Mox::Ptr<ReverseMapper> reverseMapperFactory(const Mox::Ptr<Status>& status,
                                             const Mox::Ptr<NameToIdMap>& nameToIdMap) {
  if (!status || !nameToIdMap) throw Mox::RangeException("null ValidPtr");
  return Mox::Ptr<ReverseMapper>(new ReverseMapper(status, nameToIdMap));
}

void ReverseMapper::handleVrfIdToName(VrfId vrfId, const VrfEntry* entry) {
  MOX_TRACE(trace, 3, " vrfId: " << vrfId);
  if (!entry) return handleDeletion(vrfId);
  const String8 vrfName = entry->vrfName();
  MOX_TRACE(trace, 3, " add vrfId: " << vrfId << " vrfName: " << vrfName);
  nameToIdMap()->vrfNameToIdIs(vrfName, vrfId);
  vrfIdToNameCacheIs(vrfId, vrfName);
}

void ReverseMapper::handleDeletion(VrfId vrfId) {
  const auto cached = vrfIdToNameCacheColl().find(vrfId);
  if (cached == vrfIdToNameCacheColl().end()) {
    MOX_TRACE(trace, 3, " delete vrfId: " << vrfId << " could not find vrfName");
    return;
  }
  const String8 vrfName = cached->second;
  MOX_TRACE(trace, 3, " delete vrfId: " << vrfId << " vrfName: " << vrfName);
  const auto& names = nameToIdMap()->vrfNameToIdColl();
  const auto named = names.find(vrfName);
  if (named != names.end() && named->second != vrfId) {
    // The name has moved on to another id since; that id's entry owns it now.
    MOX_TRACE(trace, 3,
              "ReverseMapper::"
                  << "handleVrfIdToName"
                  << " vrfId mismatch between"
                  << " nameToIdMap vrfId " << named->second << " and vrfId getting deleted "
                  << vrfId << ". Skipping deletion from nameToIdMap");
  } else {
    nameToIdMap()->vrfNameToIdDel(vrfName);
  }
  const auto left = names.find(vrfName);
  const VrfId vrfId2 = left == names.end() ? VrfId() : left->second;
  const bool consistent = vrfId2 == VrfId() || vrfIdToNameCache(vrfId2) == vrfName;
  if (!consistent) {
    std::fprintf(stderr, "%s\n",
                 ("Failed(vrfId2 == VrfId() || vrfIdToNameCache( vrfId2 ) == vrfName)  "
                  "vrfIdToNameCache( " +
                  vrfId2.stringValue() + " ) is " + vrfIdToNameCache(vrfId2) + " vrfName " +
                  vrfName + " vrfId " + vrfId.stringValue())
                     .c_str());
  }
  MOX_ASSERT_TEXT(consistent, "vrfId2 == VrfId() || vrfIdToNameCache( vrfId2 ) == vrfName");
  vrfIdToNameCacheDel(vrfId);
}

}  // namespace Vrf::VrfIdMap
