#include <Mox/AttrLogMount.h>
#include <Mox/Exception.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Mox {

namespace {

TraceHandle trace("AttrLogMount");

constexpr size_t kReadChunk = 64u << 10;
// Bytes read per turn of the loop before the records are applied and the loop turns again.
constexpr size_t kReadPerTurn = 1u << 20;

std::string hex(U64 value, int digits) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

class AttrLogMount::Reader : public FileDescriptor::Notifiee {
 public:
  explicit Reader(AttrLogMount* mount) : mount_(mount) {}
  void onReadableCount() override { mount_->readable(); }

 private:
  AttrLogMount* mount_;
};

class AttrLogMount::Retry : public Clock::Notifiee {
 public:
  explicit Retry(AttrLogMount* mount) : mount_(mount) {}
  void onTime() override {
    notifier()->minimumTimeIs(kNever);
    mount_->connect();
  }

 private:
  AttrLogMount* mount_;
};

AttrLogMount::AttrLogMount(const std::string& endpoint, Ptr<Entity> root, double retrySeconds)
    : Entity(endpoint),
      endpoint_(endpoint),
      root_(std::move(root)),
      retrySeconds_(retrySeconds),
      reader_(std::make_unique<Reader>(this)),
      retryClock_(make<Clock>(endpoint + " retry")),
      retry_(std::make_unique<Retry>(this)) {
  retry_->notifierIs(retryClock_);
  connect();
}

AttrLogMount::~AttrLogMount() = default;

void AttrLogMount::connect() {
  sockaddr_un address;
  const socklen_t length = attrLogAddress(endpoint_, &address);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    MOX_TRACE(trace, 3, endpoint_ << ": connect failed: " << std::strerror(errno));
    if (fd >= 0) ::close(fd);
    retryClock_->minimumTimeIs(now() + retrySeconds_);
    return;
  }
  fd_ = make<FileDescriptor>(endpoint_ + " mount", fd);
  reader_->notifierIs(fd_);
  phase_ = Phase::hello;
}

void AttrLogMount::readable() {
  for (size_t total = 0; total < kReadPerTurn;) {
    // The buffer keeps its size from read to read: only growing it costs a fill.
    if (in_.size() - inEnd_ < kReadChunk) in_.resize(inEnd_ + kReadChunk);
    const ssize_t got =
        ::recv(fd_->descriptor(), in_.data() + inEnd_, in_.size() - inEnd_, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return;
    if (got < 0) return disconnect(std::string("recv: ") + std::strerror(errno));
    if (got == 0) return disconnect("the publisher closed the connection");
    inEnd_ += static_cast<size_t>(got);
    total += static_cast<size_t>(got);
    if (!applyRecords()) return;
  }
}

// Applies the whole records read; false when one was bad and the connection is gone.
bool AttrLogMount::applyRecords() {
  size_t used = 0;
  while (inEnd_ - used >= 4) {
    AttrLogReader head(in_.data() + used, 4);
    const U32 size = head.integer<U32>();
    if (size > kAttrLogMaxRecord) {
      fail("a record of " + std::to_string(size) + " bytes, above the limit of " +
           std::to_string(kAttrLogMaxRecord));
      return false;
    }
    if (inEnd_ - used - 4 < size) break;
    record(std::string_view(in_.data() + used + 4, size));
    if (!fd_) return false;
    used += 4 + size;
  }
  std::memmove(in_.data(), in_.data() + used, inEnd_ - used);
  inEnd_ -= used;
  return true;
}

void AttrLogMount::record(std::string_view bytes) {
  try {
    AttrLogReader in(bytes);
    const auto op = static_cast<AttrLogOp>(in.integer<U8>());
    if ((op == AttrLogOp::hello) != (phase_ == Phase::hello)) {
      throw AttrLogError(phase_ == Phase::hello ? "the stream does not start with a hello"
                                                : "a hello in mid-stream");
    }
    switch (op) {
      case AttrLogOp::hello:
        hello(in);
        break;
      case AttrLogOp::synced:
        in.finish();
        synced();
        break;
      case AttrLogOp::set:
      case AttrLogOp::del:
      case AttrLogOp::child:
        change(op, in);
        break;
      default:
        throw AttrLogError("unknown record type " + std::to_string(static_cast<U8>(op)));
    }
  } catch (const std::exception& e) {
    fail(e.what());
  }
}

void AttrLogMount::hello(AttrLogReader& in) {
  const U32 magic = in.integer<U32>();
  if (magic != kAttrLogMagic)
    throw AttrLogError("not an attribute log (magic " + hex(magic, 8) + ")");
  const U16 version = in.integer<U16>();
  if (version != kAttrLogVersion) {
    throw AttrLogError("wrong version " + std::to_string(version) + ", this mount reads " +
                       std::to_string(kAttrLogVersion));
  }
  const auto type = attrLogGet<std::string>(in);
  const auto name = attrLogGet<std::string>(in);
  const U64 schema = in.integer<U64>();
  in.finish();
  const AttrLogClass* cls = root_ ? root_->attrLogClass() : attrLogClassNamed(type);
  if (!root_ && !cls) throw AttrLogError("unknown type " + type);
  if (!cls || type != cls->typeName()) {
    throw AttrLogError("published type " + type + " is not the mirror's");
  }
  // A model built differently on either side would put values in the wrong attributes.
  if (const U64 mine = attrLogSchema(*cls); schema != mine) {
    throw AttrLogError("published schema " + hex(schema, 16) + " of " + type +
                       " is not the mirror's " + hex(mine, 16));
  }
  if (!root_) {
    root_ = cls->make(name);
    if (!root_) throw AttrLogError("type " + type + " cannot be made as a root");
  }
  handles_.clear();
  handleOf_.clear();
  lastNode_ = nullptr;
  handles_[kAttrLogRootHandle] = {root_, root_->attrLogClass(), "", {}};
  handleOf_[root_.get()] = kAttrLogRootHandle;
  seen_.clear();
  phase_ = Phase::snapshot;
}

void AttrLogMount::change(AttrLogOp op, AttrLogReader& in) {
  if (phase_ == Phase::idle) throw AttrLogError("a change before the hello");
  const U32 handle = in.integer<U32>();
  const U16 attr = in.integer<U16>();
  const std::string_view key = in.bytes(in.integer<U16>());
  const MirrorNode& target = node(handle);
  const Ptr<Entity> entity = target.entity;  // kept alive through hooks that may drop it
  const AttrLogClass& cls = *target.cls;
  const AttrLogClass::Attr* info = cls.attr(attr);
  const bool scalar = info && info->kind == AttrLogKind::scalar;
  if (!info || !info->streamed || scalar != key.empty()) badAttribute(cls, attr, !key.empty());
  AttrLogReader keyIn(key);
  currentHandle_ = handle;
  currentAttr_ = attr;
  currentKey_ = key;
  try {
    cls.apply(*entity, attr, op, keyIn, in, *this);
    keyIn.finish();
    in.finish();
  } catch (const std::exception& e) {
    throw AttrLogError(std::string(cls.typeName()) + " attribute " + info->name + ": " + e.what());
  }
  if (phase_ == Phase::snapshot && !scalar) seen_.emplace(entity.get(), attr, std::string(key));
  if (observer_) observer_->onChange(*entity, attr, key);
}

// Out of line: the texts are made only for a fault, while change() runs for every record.
void AttrLogMount::badAttribute(const AttrLogClass& cls, U16 attr, bool keyed) const {
  const std::string where = std::string(cls.typeName()) + " attribute ";
  const AttrLogClass::Attr* info = cls.attr(attr);
  if (!info) throw AttrLogError("unknown " + where + std::to_string(attr));
  if (!info->streamed) throw AttrLogError(where + info->name + " has no attribute-log form");
  throw AttrLogError(where + info->name + (keyed ? " takes no key" : " needs a key"));
}

AttrLogMount::MirrorNode& AttrLogMount::node(U32 handle) {
  // Changes come in runs on one entity: the last one found is kept (a node does not move
  // while the map grows, and forget() drops the one kept when it goes).
  if (!lastNode_ || handle != lastHandle_) {
    auto found = handles_.find(handle);
    if (found == handles_.end()) {
      throw AttrLogError("unknown entity handle " + std::to_string(handle));
    }
    lastHandle_ = handle;
    lastNode_ = &found->second;
  }
  return *lastNode_;
}

void AttrLogMount::synced() {
  if (phase_ != Phase::snapshot) throw AttrLogError("a second synced record");
  // Connected first: what the publisher no longer has goes as live changes do, so that
  // observers report those deletions as they report any other change.
  phase_ = Phase::live;
  synced_ = true;
  deleteUnseen(*root_);
  seen_.clear();
  failures_ = 0;
  ++syncs_;
  MOX_TRACE(trace, 2, endpoint_ << ": synced, " << handles_.size() << " entities");
  if (observer_) observer_->onSynced();
}

// After a resynchronising snapshot: entries the publisher no longer has go, with their hooks.
void AttrLogMount::deleteUnseen(Entity& entity) {
  const AttrLogClass* cls = entity.attrLogClass();
  for (U16 attr = 0; attr < cls->attrCount(); ++attr) {
    const AttrLogClass::Attr* info = cls->attr(attr);
    if (info->kind == AttrLogKind::scalar || !info->streamed) continue;
    std::vector<std::string> gone;
    std::vector<Ptr<Entity>> kept;
    cls->forEachEntry(entity, attr, [&](std::string_view key, Entity* child) {
      if (!seen_.count({&entity, attr, std::string(key)})) {
        gone.emplace_back(key);
      } else if (child) {
        kept.emplace_back(child);
      }
    });
    for (const std::string& key : gone) {
      AttrLogReader keyIn(key);
      AttrLogReader none(std::string_view{});
      cls->apply(entity, attr, AttrLogOp::del, keyIn, none, *this);
      if (observer_) observer_->onChange(entity, attr, key);
    }
    for (const Ptr<Entity>& child : kept) deleteUnseen(*child);
  }
}

void AttrLogMount::childIs(Entity& child, AttrLogReader& value) {
  const U32 handle = value.integer<U32>();
  const auto type = attrLogGet<std::string>(value);
  const AttrLogClass* cls = child.attrLogClass();
  if (!cls || type != cls->typeName()) {
    throw AttrLogError("child type " + type + " is not the mirror's " +
                       (cls ? cls->typeName() : "(never streamed)"));
  }
  if (handle == kAttrLogRootHandle || handles_.count(handle)) {
    throw AttrLogError("child handle " + std::to_string(handle) + " given twice");
  }
  MirrorNode& parent = handles_.at(currentHandle_);
  // The child's path ends in its key as the parent prints it.
  AttrLogTextSink text;
  AttrLogReader key(currentKey_);
  const AttrLogClass* parentCls = parent.entity->attrLogClass();
  try {
    parentCls->emit(*parent.entity, currentHandle_, currentAttr_, key, text);
  } catch (const Exception&) {
    // A key without a text form here (an interface no plug-in names) is shown as "?".
  }
  const std::string keyText = text.lines.empty() ? "?" : text.lines.front().key.value_or("?");
  parent.children.push_back(handle);
  const std::string path =
      parent.path + "/" + parentCls->attr(currentAttr_)->name + "[" + keyText + "]";
  handles_[handle] = {&child, cls, path, {}};
  handleOf_[&child] = handle;
}

void AttrLogMount::childGone(Entity* child) {
  auto handle = child ? handleOf_.find(child) : handleOf_.end();
  if (handle != handleOf_.end()) forget(handle->second);
}

void AttrLogMount::forget(U32 handle) {
  auto node = handles_.find(handle);
  if (node == handles_.end()) return;
  for (U32 child : node->second.children) forget(child);
  if (handle == lastHandle_) lastNode_ = nullptr;
  handleOf_.erase(node->second.entity.get());
  handles_.erase(node);
}

std::string AttrLogMount::pathOf(const Entity& entity) const {
  auto handle = handleOf_.find(&entity);
  return handle == handleOf_.end() ? std::string() : handles_.at(handle->second).path;
}

void AttrLogMount::fail(const std::string& reason) {
  ATTRLOG_MOUNT_DROPPED.log(endpoint_, reason);
  lastError_ = reason;
  ++failures_;
  disconnect(reason);
}

void AttrLogMount::disconnect(const std::string& reason) {
  MOX_TRACE(trace, 1, endpoint_ << ": disconnected: " << reason);
  reader_->notifierIs(nullptr);
  fd_ = nullptr;
  in_.clear();
  inEnd_ = 0;
  phase_ = Phase::idle;
  synced_ = false;
  ++drops_;
  // A publisher that keeps sending what this mount cannot read is retried ever more slowly
  // (up to a minute apart), not logged about many times a second.
  const double backOff = std::min(60.0, retrySeconds_ * double(1u << std::min(failures_, 16u)));
  retryClock_->minimumTimeIs(now() + std::max(retrySeconds_, backOff));
  if (observer_) observer_->onDisconnected(reason);
}

}  // namespace Mox
