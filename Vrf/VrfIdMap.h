#pragma once
// The VRF-name to VRF-id map. One Writer per table allocates ids and publishes each
// (id, name) pair in the shared table; its last allocated id survives restarts in a small
// segment named after the writer, so ids are not reused until the counter wraps. Readers
// in any process follow the table with a ReverseMapper, which fills a NameToIdMap.
//
//   auto status = Vrf::VrfIdMap::statusFactory("vrf-id-map");
//   auto writer = Vrf::VrfIdMap::writerFactory(status, "vrf-writer");
//   Vrf::VrfIdMap::VrfId id = writer->vrfIs("blue");     // 1, 2, ... ("default" is 0)
//
//   auto wrapper = Vrf::VrfIdMap::nameToIdMapWrapperFactory("vrfs");   // another process
//   auto mapper = Vrf::VrfIdMap::reverseMapperFactory(status, wrapper->nameToIdMap());
//   ... the loop runs ... wrapper->vrfIdExists("blue");

#include <Cairn/Segment.h>
#include <Vrf/VrfConstants.h>
#include <Vrf/VrfIdMap.mox.h>
#include <Vrf/VrfIdMapTypes.h>

#include <memory>

namespace Vrf::VrfIdMap {

class NameToIdMapWrapper : public NameToIdMapWrapperBase {
 public:
  bool vrfIdExists(const Mox::String8& name) const;

 protected:
  explicit NameToIdMapWrapper(const Mox::Name& name);

 private:
  friend Mox::Ptr<NameToIdMapWrapper> nameToIdMapWrapperFactory(const Mox::Name& name);
};

class Writer : public WriterBase {
 public:
  // The id of `name`, allocated and published when new; the null id when the table is full.
  VrfId vrfIs(const Mox::String8& name);
  void vrfDel(const Mox::String8& name);
  // Forgets every VRF and starts a new counter.
  void reset();
  // Makes the next allocation wrap around past 0xFFFFFFFE.
  void prepareVrfIdWrapAround();
  VrfId addDefaultVrf() { return vrfIs("default"); }
  const Mox::U32* lastVrfIdPtr() const noexcept { return lastVrfIdPtr_; }

 protected:
  Writer(const Mox::Ptr<Status>& status, const Mox::String8& writerName);
  // Attaches the counter, adds "default" and learns the VRFs already in the table.
  void handleInitialized();
  VrfId allocateVrfId();

 private:
  friend Mox::Ptr<Writer> writerFactory(const Mox::Ptr<Status>& status,
                                        const Mox::String8& writerName);
  void attachCounter(bool create);

  std::unique_ptr<Cairn::NamedSegment> counter_;
  Mox::U32* lastVrfIdPtr_ = nullptr;
};

// The writer of `status`'s table, its counter in the segment `writerName`. Raises
// Mox::RangeException "null ValidPtr" without a status.
Mox::Ptr<Writer> writerFactory(const Mox::Ptr<Status>& status, const Mox::String8& writerName);

class ReverseMapper : public ReverseMapperBase {
 public:
  ~ReverseMapper() override;
  // The table's watcher, whose notifications keep the maps current.
  const Mox::Ptr<Status::Watcher>& watcher() const noexcept { return watcher_; }

 protected:
  ReverseMapper(const Mox::Ptr<Status>& status, const Mox::Ptr<NameToIdMap>& nameToIdMap);
  // Follows one changed id of the table: `entry` is its entry, null when it is gone.
  void handleVrfIdToName(VrfId vrfId, const VrfEntry* entry);

 private:
  class TableReactor;
  friend Mox::Ptr<ReverseMapper> reverseMapperFactory(const Mox::Ptr<Status>& status,
                                                      const Mox::Ptr<NameToIdMap>& nameToIdMap);
  void handleDeletion(VrfId vrfId);

  Mox::Ptr<Status::Watcher> watcher_;
  std::unique_ptr<TableReactor> reactor_;
};

Mox::Ptr<ReverseMapper> reverseMapperFactory(const Mox::Ptr<Status>& status,
                                             const Mox::Ptr<NameToIdMap>& nameToIdMap);

}  // namespace Vrf::VrfIdMap
