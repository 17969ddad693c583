#include <Mox/Assert.h>
#include <Mox/AttrLogPublisher.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

namespace Mox {

namespace {

TraceHandle trace("AttrLogPublisher");

// A queue this long is sent at once rather than on the next turn, so a burst of changes
// within one turn does not pile up.
constexpr size_t kSendNowBytes = 1u << 20;

}  // namespace

// One connected mount: its descriptor and the records queued for it.
class AttrLogPublisher::Mount : public FileDescriptor::Notifiee {
 public:
  Mount(AttrLogPublisher* publisher, int descriptor)
      : publisher_(publisher),
        fd_(make<FileDescriptor>(publisher->endpoint_ + " mount", descriptor)) {
    notifierIs(fd_);
  }

  // A mount sends nothing: bytes are discarded, end of stream or an error ends the mount.
  void onReadableCount() override {
    char discard[256];
    const ssize_t got = ::recv(fd_->descriptor(), discard, sizeof(discard), MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) closeIs();
  }
  void onWritableCount() override { publisher_->send(*this); }

  int descriptor() const noexcept { return fd_->descriptor(); }
  bool closed() const noexcept { return closed_; }
  void closeIs() {
    closed_ = true;
    notifierIs(nullptr);
    fd_->descriptorIs(-1);
    out.clear();
    publisher_->reap_.schedule();
  }
  void writableWatchIs(bool on) { fd_->notifyOnWritableIs(on); }
  bool blocked() const noexcept { return fd_->notifyOnWritable(); }
  bool idle() const noexcept { return out.size() == sent && !blocked(); }

  std::string out;  // queued records; the first `sent` bytes are gone already
  size_t sent = 0;

 private:
  AttrLogPublisher* publisher_;
  Ptr<FileDescriptor> fd_;
  bool closed_ = false;
};

// Turns the sink's calls into records.
class AttrLogPublisher::RecordSink : public AttrLogSink {
 public:
  explicit RecordSink(AttrLogPublisher* publisher) : publisher_(publisher) {}

  // A child record about a known child.
  void childRecord(U32 handle, U16 attr, std::string_view key, U32 child, std::string_view type) {
    if (!records_) return;
    AttrLogWriter& writer = records_->begin(AttrLogOp::child, handle, attr);
    writer.bytes(key.data(), key.size());
    records_->endKey();
    writer.integer(child);
    attrLogWrite(writer, type);
    records_->end();
    recordDone();
  }
  void delRecord(U32 handle, U16 attr, std::string_view key) {
    if (!records_) return;
    records_->begin(AttrLogOp::del, handle, attr).bytes(key.data(), key.size());
    records_->endKey();
    records_->end();
    recordDone();
  }

 protected:
  AttrLogPublisher* publisher_;
};

// Changes as they happen, written once into a batch that flush() hands to every mount at
// the next turn of the loop (or at once when it grows large).
class AttrLogPublisher::LiveSink : public RecordSink {
 public:
  using RecordSink::RecordSink;

  // Records are written only while some mount listens.
  void listeningIs(bool on) {
    records_ = nullptr;
    writer_.reset();
    batch_.clear();
    if (on) records_ = &writer_.emplace(&batch_);
  }
  // Bytes written since the batch was last taken.
  size_t pending() const noexcept { return writer_ ? writer_->size() : 0; }
  // Calls fn(records) with the batch, then starts a new one.
  template <class Fn>
  void takeBatch(Fn fn) {
    if (pending() == 0) return;
    writer_->flush();
    fn(std::string_view(batch_));
    listeningIs(true);
  }

 protected:
  void recordDone() override {
    if (pending() >= kSendNowBytes) {
      publisher_->flush();
    } else if (!publisher_->flush_.scheduled()) {
      publisher_->flush_.schedule();
    }
  }
  void childIs(U32 handle, U16 attr, std::string_view key, Entity* child) override {
    publisher_->childIs(handle, attr, key, child);
  }

 private:
  std::string batch_;
  std::optional<AttrLogRecordWriter> writer_;
};

// The whole tree for one new mount, with the handles the live records use.
class AttrLogPublisher::SnapshotSink : public RecordSink {
 public:
  SnapshotSink(AttrLogPublisher* publisher, AttrLogRecordWriter* records) : RecordSink(publisher) {
    records_ = records;
  }

 protected:
  void childIs(U32 handle, U16 attr, std::string_view key, Entity* child) override {
    const Node& parent = publisher_->nodes_.at(handle);
    auto known = parent.children.find({attr, std::string(key)});
    if (!child || known == parent.children.end()) return;  // nolog children
    childRecord(handle, attr, key, known->second, child->attrLogClass()->typeName());
    publisher_->snapshot(known->second, records_);
  }
};

class AttrLogPublisher::Listener : public FileDescriptor::Notifiee {
 public:
  explicit Listener(AttrLogPublisher* publisher) : publisher_(publisher) {}
  void onReadableCount() override { publisher_->accept(); }

 private:
  AttrLogPublisher* publisher_;
};

AttrLogPublisher::AttrLogPublisher(const std::string& endpoint, Ptr<Entity> root,
                                   size_t maxBacklogBytes)
    : Entity(endpoint),
      endpoint_(endpoint),
      root_(std::move(root)),
      maxBacklog_(maxBacklogBytes),
      live_(std::make_unique<LiveSink>(this)),
      flush_([this] { flush(); }),
      reap_([this] { reap(); }) {
  MOX_ASSERT(root_ && root_->attrLogClass());
  sockaddr_un address;
  const socklen_t length = attrLogAddress(endpoint, &address);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw ErrnoException(errno, "socket(AF_UNIX)");
  listenFd_ = make<FileDescriptor>(endpoint + " listener", fd);
  if (endpoint[0] != '@') ::unlink(endpoint.c_str());
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    throw ErrnoException(errno, "bind(" + endpoint + ")");
  }
  if (::listen(fd, 16) != 0) throw ErrnoException(errno, "listen(" + endpoint + ")");
  adopt(*root_);
  listener_ = std::make_unique<Listener>(this);
  listener_->notifierIs(listenFd_);
}

AttrLogPublisher::~AttrLogPublisher() {
  if (endpoint_[0] != '@') ::unlink(endpoint_.c_str());
}

size_t AttrLogPublisher::mountCount() const noexcept {
  return static_cast<size_t>(std::count_if(mounts_.begin(), mounts_.end(),
                                           [](const auto& mount) { return !mount->closed(); }));
}

size_t AttrLogPublisher::backlog() const noexcept {
  size_t bytes = 0;
  for (const auto& mount : mounts_) {
    if (!mount->closed()) bytes += mount->out.size() - mount->sent + live_->pending();
  }
  return bytes;
}

U32 AttrLogPublisher::adopt(Entity& entity) {
  const U32 handle = nextHandle_++;
  Node& node = nodes_[handle];
  node.entity = &entity;
  handleOf_[&entity] = handle;
  const AttrLogClass* cls = entity.attrLogClass();
  cls->watch(entity, handle, *live_, &node.watches);
  // The children present now: with no mount listening this writes nothing but adopts them.
  cls->snapshot(entity, handle, *live_);
  return handle;
}

void AttrLogPublisher::drop(U32 handle) {
  auto node = nodes_.find(handle);
  if (node == nodes_.end()) return;
  for (const auto& [slot, child] : node->second.children) drop(child);
  handleOf_.erase(node->second.entity.get());
  nodes_.erase(node);
}

void AttrLogPublisher::childIs(U32 handle, U16 attr, std::string_view key, Entity* child) {
  auto parent = nodes_.find(handle);
  if (parent == nodes_.end()) return;
  auto& children = parent->second.children;
  std::pair<U16, std::string> slot(attr, key);
  auto known = children.find(slot);
  if (known != children.end()) {
    if (child && nodes_.at(known->second).entity.get() == child) return;
    drop(known->second);
    children.erase(known);
    live_->delRecord(handle, attr, key);
  }
  if (!child) return;
  if (!child->attrLogClass()) return;
  // The child record goes first, so that mounts know the handle of what adopt() sends.
  children.emplace(std::move(slot), nextHandle_);
  live_->childRecord(handle, attr, key, nextHandle_, child->attrLogClass()->typeName());
  adopt(*child);
}

void AttrLogPublisher::snapshot(U32 handle, AttrLogRecordWriter* records) {
  const Node& node = nodes_.at(handle);
  SnapshotSink sink(this, records);
  node.entity->attrLogClass()->snapshot(*node.entity, handle, sink);
}

void AttrLogPublisher::accept() {
  const int fd = ::accept4(listenFd_->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    MOX_TRACE(trace, 1, "accept failed: " << errno);
    return;
  }
  // The mounts there are get what changed before this one's snapshot; it gets what follows.
  flush();
  auto mount = std::make_unique<Mount>(this, fd);
  {
    AttrLogRecordWriter records(&mount->out);
    const AttrLogClass& cls = *root_->attrLogClass();
    records.hello(cls.typeName(), root_->name(), attrLogSchema(cls));
    snapshot(kAttrLogRootHandle, &records);
    records.synced();
  }
  mounts_.push_back(std::move(mount));
  live_->listeningIs(true);
  MOX_TRACE(trace, 2,
            endpoint_ << ": mount " << fd << " gets " << mounts_.back()->out.size()
                      << " bytes of snapshot");
  send(*mounts_.back());
}

void AttrLogPublisher::flush() {
  live_->takeBatch([this](std::string_view records) {
    for (auto& mount : mounts_) {
      if (mount->closed()) continue;
      // A mount with nothing queued is sent the batch itself: only what its socket does not
      // take now is copied to its queue.
      const size_t sent = mount->idle() ? transmit(*mount, records) : 0;
      if (!mount->closed()) mount->out.append(records.substr(sent));
    }
  });
  for (auto& mount : mounts_) {
    if (mount->closed()) continue;
    // A mount whose socket is full is sent to when the loop sees it writable again.
    if (!mount->blocked()) {
      send(*mount);
    } else if (mount->out.size() - mount->sent > maxBacklog_) {
      cutOff(*mount);
    }
  }
}

size_t AttrLogPublisher::transmit(Mount& mount, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t sent = ::send(mount.descriptor(), bytes.data() + done, bytes.size() - done,
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      done += static_cast<size_t>(sent);
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      MOX_TRACE(trace, 1, endpoint_ << ": mount " << mount.descriptor() << " gone: " << errno);
      mount.closeIs();
      break;
    }
  }
  return done;
}

void AttrLogPublisher::send(Mount& mount) {
  const size_t sent = transmit(mount, std::string_view(mount.out).substr(mount.sent));
  if (mount.closed()) return;
  mount.sent += sent;
  const size_t backlog = mount.out.size() - mount.sent;
  if (backlog > maxBacklog_) return cutOff(mount);
  if (backlog == 0) {
    mount.out.clear();
    mount.sent = 0;
  } else if (mount.sent > backlog) {
    mount.out.erase(0, mount.sent);
    mount.sent = 0;
  }
  mount.writableWatchIs(backlog != 0);
}

void AttrLogPublisher::cutOff(Mount& mount) {
  ATTRLOG_MOUNT_CUT_OFF.log(endpoint_, U64(mount.out.size() - mount.sent));
  ++cutOffs_;
  mount.closeIs();
}

void AttrLogPublisher::reap() {
  std::erase_if(mounts_, [](const auto& mount) { return mount->closed(); });
  if (mounts_.empty()) live_->listeningIs(false);
}

}  // namespace Mox
