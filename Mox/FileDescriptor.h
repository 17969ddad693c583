#pragma once
// A descriptor owned by the runtime and watched by this thread's event loop. It is switched
// to non-blocking when taken over and closed when the entity goes (or takes another one),
// through the closer its owner chose: close(2) by default, or a function that must not
// block the loop (one that hands the descriptor to another thread). release() hands the
// descriptor back open instead, so it always has exactly one owner that closes it.
// Each time the loop sees it readable (writable) the readable (writable) count goes up by
// one and notifiees hear onReadableCount() (onWritableCount()). Level-triggered (the
// default), the count rises on every turn for as long as the descriptor stays ready;
// edge-triggered, once per new readiness. Readable is watched by default, writable not:
// switch it on when there is something to send and off when the queue is empty.
//
//   auto fd = Mox::make<Mox::FileDescriptor>("udp", socket(...));
//   struct Reader : Mox::FileDescriptor::Notifiee {
//     void onReadableCount() override { recv(notifier()->descriptor(), ...); }
//   } reader;
//   reader.notifierIs(fd);

#include <Mox/Entity.h>
#include <Mox/Ptr.h>
#include <Mox/Types.h>

#include <unistd.h>

namespace Mox {

class ActivityManagerConfig;

class FileDescriptor : public Entity {
 public:
  class Notifiee;
  // Closes a descriptor the way close(2) does (returns its result).
  using Closer = int (*)(int descriptor);

  // Takes `descriptor` over when it is not -1 (see descriptorIs), to be closed by `closer`.
  explicit FileDescriptor(Name name, int descriptor = -1, Closer closer = ::close);
  ~FileDescriptor() override;

  int descriptor() const noexcept { return descriptor_; }
  // Takes `descriptor` over, closing the one held before, and makes it non-blocking; -1
  // just closes. A failed set-up (fcntl, epoll_ctl) closes the new descriptor too and throws
  // Mox::ErrnoException naming the failed step.
  void descriptorIs(int descriptor);
  // Stops watching the descriptor and returns it open (still non-blocking); the entity
  // holds none afterwards. -1 when it held none.
  int release() noexcept;

  Closer closer() const noexcept { return closer_; }
  // How every later close is done; set it before taking a descriptor over.
  void closerIs(Closer closer) noexcept { closer_ = closer; }
  bool nonBlocking() const noexcept { return nonBlocking_; }

  bool notifyOnReadable() const noexcept { return notifyOnReadable_; }
  void notifyOnReadableIs(bool on);
  bool notifyOnWritable() const noexcept { return notifyOnWritable_; }
  void notifyOnWritableIs(bool on);
  bool edgeTriggered() const noexcept { return edgeTriggered_; }
  bool levelTriggered() const noexcept { return !edgeTriggered_; }
  void edgeTriggeredIs(bool on);

  U32 readableCount() const noexcept { return readableCount_; }
  U32 writableCount() const noexcept { return writableCount_; }

 private:
  friend class ActivityManagerConfig;
  static constexpr U32 kNoSlot = ~U32(0);

  // The epoll events this descriptor should be watched for now (0: not at all).
  U32 wantedEvents() const noexcept;
  void watchUpdate();
  void closeDescriptor() noexcept;
  // Called by the loop with the epoll events it saw.
  void ready(U32 events);

  Ptr<ActivityManagerConfig> manager_;
  Closer closer_;
  int descriptor_ = -1;
  U32 slot_ = kNoSlot;     // the loop's registry slot while watched
  U32 watchedEvents_ = 0;  // what epoll watches for now
  U32 readableCount_ = 0;
  U32 writableCount_ = 0;
  bool notifyOnReadable_ = true;
  bool notifyOnWritable_ = false;
  bool edgeTriggered_ = false;
  bool nonBlocking_ = false;
};

class FileDescriptor::Notifiee : public Entity::NotifieeBase {
 public:
  FileDescriptor* notifier() const noexcept {
    return static_cast<FileDescriptor*>(const_cast<Entity*>(notifierBase()));
  }
  void notifierIs(const Ptr<FileDescriptor>& fd) { notifierBaseIs(fd.get()); }

  virtual void onReadableCount() {}
  virtual void onWritableCount() {}
};

}  // namespace Mox
