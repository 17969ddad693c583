#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Trace.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace Mox {

namespace {

TraceHandle trace("FileDescriptor");

// Errors and hang-ups are reported both ways: the next read or write is what sees them.
constexpr U32 kReadableEvents = EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP;
constexpr U32 kWritableEvents = EPOLLOUT | EPOLLERR | EPOLLHUP;

}  // namespace

FileDescriptor::FileDescriptor(Name name, int descriptor, Closer closer)
    : Entity(std::move(name)), manager_(ActivityManagerConfig::current()), closer_(closer) {
  if (descriptor != -1) descriptorIs(descriptor);
}

FileDescriptor::~FileDescriptor() {
  closeDescriptor();
}

void FileDescriptor::descriptorIs(int descriptor) {
  if (descriptor == descriptor_) return;
  closeDescriptor();
  if (descriptor == -1) return;
  descriptor_ = descriptor;
  try {
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 ||
        (!(flags & O_NONBLOCK) && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0)) {
      throw ErrnoException(errno, "fcntl(O_NONBLOCK)");
    }
    nonBlocking_ = true;
    watchUpdate();
  } catch (const ErrnoException& e) {
    MOX_TRACE(trace, 1,
              name() << ": taking over fd " << descriptor << " failed: " << e.description());
    closeDescriptor();
    throw;
  }
  MOX_TRACE(trace, 5, name() << ": took over fd " << descriptor);
}

int FileDescriptor::release() noexcept {
  const int descriptor = descriptor_;
  if (descriptor < 0) return -1;
  manager_->watchIs(*this, 0);  // removing never throws
  MOX_TRACE(trace, 5, name() << ": released fd " << descriptor);
  descriptor_ = -1;
  nonBlocking_ = false;
  return descriptor;
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  if (on == notifyOnReadable_) return;
  notifyOnReadable_ = on;
  watchUpdate();
}

void FileDescriptor::notifyOnWritableIs(bool on) {
  if (on == notifyOnWritable_) return;
  notifyOnWritable_ = on;
  watchUpdate();
}

void FileDescriptor::edgeTriggeredIs(bool on) {
  if (on == edgeTriggered_) return;
  edgeTriggered_ = on;
  watchUpdate();
}

U32 FileDescriptor::wantedEvents() const noexcept {
  if (descriptor_ < 0) return 0;
  U32 events = (notifyOnReadable_ ? U32(EPOLLIN | EPOLLRDHUP) : 0u) |
               (notifyOnWritable_ ? U32(EPOLLOUT) : 0u);
  // With nothing wanted the descriptor leaves epoll: epoll would still report hang-ups.
  if (events && edgeTriggered_) events |= EPOLLET;
  return events;
}

void FileDescriptor::watchUpdate() {
  manager_->watchIs(*this, wantedEvents());
}

void FileDescriptor::closeDescriptor() noexcept {
  if (descriptor_ < 0) return;
  manager_->watchIs(*this, 0);  // removing never throws
  if (closer_(descriptor_) < 0) {
    MOX_TRACE(trace, 1, name() << ": close(" << descriptor_ << ") failed, errno " << errno);
  }
  MOX_TRACE(trace, 5, name() << ": closed fd " << descriptor_);
  descriptor_ = -1;
  nonBlocking_ = false;
}

void FileDescriptor::ready(U32 events) {
  // A reactor may drop the last reference to this descriptor while being told.
  Ptr<FileDescriptor> keepAlive(this);
  if ((events & kReadableEvents) && notifyOnReadable_) {
    ++readableCount_;
    MOX_TRACE(trace, 9, name() << ": readable #" << readableCount_);
    notify<Notifiee>([](Notifiee& notifiee) { notifiee.onReadableCount(); });
  }
  // A readable reactor may have switched writable notification off, or closed the descriptor.
  if ((events & kWritableEvents) && notifyOnWritable_ && descriptor_ >= 0) {
    ++writableCount_;
    MOX_TRACE(trace, 9, name() << ": writable #" << writableCount_);
    notify<Notifiee>([](Notifiee& notifiee) { notifiee.onWritableCount(); });
  }
}

}  // namespace Mox
