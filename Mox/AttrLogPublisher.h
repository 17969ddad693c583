#pragma once
// Publishes an entity tree on the attribute log: a root entity, its attributes and its
// collections, and the same of every child entity below it. Each process that mounts the
// endpoint (Mox/AttrLogMount.h) first gets the whole tree, then every change in the order
// it happened. Entities whose class is never streamed (nolog in their model) are left out.
//
//   auto status = Korva::netnsFactory("blue");
//   auto publisher = Mox::make<Mox::AttrLogPublisher>("@korva/netns", status);
//   status->nsIs(Korva::NamespaceName("blue"));   // reaches every mount in order
//
// Everything runs on the thread's event loop. A change is written once, into a batch that
// the next turn of the loop (or the batch growing large) hands to every mount's queue and
// sends; a mount that lets its queue pass `maxBacklogBytes` is cut off
// (ATTRLOG_MOUNT_CUT_OFF) rather than let memory grow.
// A mount never affects the publisher or the other mounts.

#include <Mox/AttrLogClass.h>
#include <Mox/AttrLogWire.h>
#include <Mox/Deferred.h>
#include <Mox/Entity.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Log.h>
#include <Mox/Ptr.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Mox {

inline constexpr LogHandle<std::string, U64> ATTRLOG_MOUNT_CUT_OFF{
    "ATTRLOG_MOUNT_CUT_OFF", LogSeverity::warning,
    "The attribute log published at %s cut off a mount that fell %u bytes behind.",
    "The mounting agent reads too slowly or is stuck; it resynchronises when it reconnects. "
    "If this repeats, check that agent's load."};

class AttrLogPublisher : public Entity {
 public:
  static constexpr size_t kDefaultMaxBacklog = 64u << 20;

  // Listens at `endpoint` (see Mox/AttrLogWire.h) and publishes `root`, which must be of a
  // streamed class. A failed set-up closes what it opened and throws Mox::ErrnoException
  // naming the step ("bind(@name)").
  AttrLogPublisher(const std::string& endpoint, Ptr<Entity> root,
                   size_t maxBacklogBytes = kDefaultMaxBacklog);
  ~AttrLogPublisher() override;

  const Ptr<Entity>& root() const noexcept { return root_; }
  size_t mountCount() const noexcept;
  // Entities of the tree being watched now, the root included.
  size_t entityCount() const noexcept { return nodes_.size(); }
  U64 cutOffs() const noexcept { return cutOffs_; }
  // Bytes queued for the mounts and not sent yet.
  size_t backlog() const noexcept;
  // Sends what is queued now instead of on the next turn of the loop.
  void flush();

 private:
  class Mount;
  class RecordSink;
  class LiveSink;
  class SnapshotSink;
  class Listener;

  struct Node {
    Ptr<Entity> entity;
    AttrLogWatches watches;
    // Child entities by (attribute, key in its binary form).
    std::map<std::pair<U16, std::string>, U32> children;
  };

  void accept();
  // Gives `entity` a handle, watches it, and (through `sink`) adopts its children.
  U32 adopt(Entity& entity);
  void drop(U32 handle);
  void childIs(U32 handle, U16 attr, std::string_view key, Entity* child);
  void snapshot(U32 handle, AttrLogRecordWriter* records);
  // Sends what the socket takes now of `bytes`; the count sent.
  size_t transmit(Mount& mount, std::string_view bytes);
  // Sends the mount's queue and watches for room while some is left.
  void send(Mount& mount);
  void cutOff(Mount& mount);
  void reap();

  std::string endpoint_;
  Ptr<Entity> root_;
  size_t maxBacklog_;
  Ptr<FileDescriptor> listenFd_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<LiveSink> live_;
  std::unordered_map<U32, Node> nodes_;
  std::unordered_map<const Entity*, U32> handleOf_;
  U32 nextHandle_ = kAttrLogRootHandle;
  std::vector<std::unique_ptr<Mount>> mounts_;
  Deferred flush_;
  Deferred reap_;
  U64 cutOffs_ = 0;
};

}  // namespace Mox
