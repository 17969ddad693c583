#pragma once
// Mounts an entity tree published on the attribute log (Mox/AttrLogPublisher.h): the mount
// keeps a mirror of the tree, of the same generated classes, first filled from the
// publisher's snapshot and then changed record by record, in order, through the entities'
// own mutators, so that every notifiee of the mirror hears exactly what it would hear of a
// local change.
//
//   auto mount = Mox::make<Mox::AttrLogMount>("@korva/netns", Korva::netnsFactory("blue"));
//   struct Watcher : Korva::Netns::Notifiee { void onNs() override { ... } };
//
// Without a root of its own the mount makes one, of the published type, by that type's
// factory. A mount that loses its publisher keeps the last state it had, reports itself
// disconnected and reconnects every `retrySeconds` (backing off after bad input, up to a
// minute); the snapshot that follows the new
// connection resynchronises the mirror: what the publisher no longer has is deleted, with
// its notifications. Bytes that are no attribute log (a truncated record, an unknown type,
// attribute or handle, another version, a value out of its bounds) end the connection with
// ATTRLOG_MOUNT_DROPPED naming the fault; the mirror keeps every change applied before it.

#include <Mox/AttrLogClass.h>
#include <Mox/AttrLogWire.h>
#include <Mox/Clock.h>
#include <Mox/Entity.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Log.h>
#include <Mox/Ptr.h>

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace Mox {

inline constexpr LogHandle<std::string, std::string> ATTRLOG_MOUNT_DROPPED{
    "ATTRLOG_MOUNT_DROPPED", LogSeverity::error,
    "The attribute log mounted from %s sent bytes that are no attribute log (%s); the mount "
    "dropped the connection and keeps its last state.",
    "Check that the publishing agent runs the same model version as this one. The mount "
    "reconnects and resynchronises on its own."};

class AttrLogMount : public Entity, private AttrLogMirror {
 public:
  // What a mount tells the one who watches it: tools print the tree and its changes.
  class Observer {
   public:
    virtual ~Observer() = default;
    // The snapshot of a new connection is complete and applied.
    virtual void onSynced() {}
    // One record changed attribute `attr` of `entity` (for a collection: at `key`, in its
    // binary form); or, once a resynchronising snapshot is complete, an entry it no longer
    // names was deleted (connected() holds then, as it does for every live change).
    virtual void onChange(const Entity& /*entity*/, U16 /*attr*/, std::string_view /*key*/) {}
    // The connection ended; `reason` says why.
    virtual void onDisconnected(const std::string& /*reason*/) {}
  };

  explicit AttrLogMount(const std::string& endpoint, Ptr<Entity> root = nullptr,
                        double retrySeconds = 0.2);
  ~AttrLogMount() override;

  const std::string& endpoint() const noexcept { return endpoint_; }
  // The mirror's root (null until the first hello when the mount makes it).
  const Ptr<Entity>& root() const noexcept { return root_; }
  // A connection stands and its snapshot is complete.
  bool connected() const noexcept { return synced_; }
  U32 syncs() const noexcept { return syncs_; }
  U32 drops() const noexcept { return drops_; }
  const std::string& lastError() const noexcept { return lastError_; }
  // The path of a mirror entity, as "/attr[key]/..." from the root ("" for the root).
  std::string pathOf(const Entity& entity) const;

  void observerIs(Observer* observer) noexcept { observer_ = observer; }

 private:
  class Reader;
  class Retry;
  struct MirrorNode {
    Ptr<Entity> entity;
    const AttrLogClass* cls;  // the entity's, kept: a change asks for it
    std::string path;
    std::vector<U32> children;
  };

  void connect();
  void readable();
  bool applyRecords();
  void record(std::string_view bytes);
  void hello(AttrLogReader& in);
  void change(AttrLogOp op, AttrLogReader& in);
  [[noreturn]] void badAttribute(const AttrLogClass& cls, U16 attr, bool keyed) const;
  MirrorNode& node(U32 handle);
  void synced();
  void deleteUnseen(Entity& entity);
  void fail(const std::string& reason);
  void disconnect(const std::string& reason);

  // AttrLogMirror
  void childIs(Entity& child, AttrLogReader& value) override;
  void childGone(Entity* child) override;
  void forget(U32 handle);

  enum class Phase : U8 { idle, hello, snapshot, live };

  std::string endpoint_;
  Ptr<Entity> root_;
  double retrySeconds_;
  Ptr<FileDescriptor> fd_;
  std::unique_ptr<Reader> reader_;
  Ptr<Clock> retryClock_;
  std::unique_ptr<Retry> retry_;
  Observer* observer_ = nullptr;
  Phase phase_ = Phase::idle;
  std::string in_;  // bytes read: the first inEnd_ of them, then room for more
  size_t inEnd_ = 0;
  std::unordered_map<U32, MirrorNode> handles_;
  std::unordered_map<const Entity*, U32> handleOf_;
  // Collection entries the snapshot of the current connection named.
  std::set<std::tuple<const Entity*, U16, std::string>> seen_;
  // The node found last, for handle lastHandle_; null when none is kept. A damaged record
  // may name any handle, 0 included, so the handle alone cannot say "none".
  U32 lastHandle_ = 0;
  MirrorNode* lastNode_ = nullptr;
  U32 currentHandle_ = 0;  // of the record being applied
  U16 currentAttr_ = 0;
  std::string_view currentKey_;
  bool synced_ = false;
  U32 syncs_ = 0;
  U32 drops_ = 0;
  U32 failures_ = 0;  // bad input since the last complete snapshot
  std::string lastError_;
};

}  // namespace Mox
