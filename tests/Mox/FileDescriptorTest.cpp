#include <Mox/Activity.h>
#include <Mox/Exception.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Trace.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace {

using Mox::FileDescriptor;
using Mox::Ptr;

// The events the kernel's epoll sets watch `fd` for, read from /proc (-1: not watched).
long kernelWatchedEvents(int fd) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    std::string line;
    while (std::getline(info, line)) {
      int watched;
      unsigned events;
      if (std::sscanf(line.c_str(), "tfd: %d events: %x", &watched, &events) == 2 &&
          watched == fd) {
        return long(events & ~unsigned(EPOLLERR | EPOLLHUP));  // always watched
      }
    }
  }
  return -1;
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

void writeByte(int fd) {
  ASSERT_EQ(write(fd, "x", 1), 1);
}

// Counts notifications and runs an optional action from inside them.
struct Counter : FileDescriptor::Notifiee {
  explicit Counter(const Ptr<FileDescriptor>& fd) { notifierIs(fd); }
  void onReadableCount() override {
    ++readable;
    if (onReadable) onReadable();
  }
  void onWritableCount() override { ++writable; }
  int readable = 0;
  int writable = 0;
  std::function<void()> onReadable;
};

class FileDescriptorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe(pipe_), 0); }
  void TearDown() override {
    for (int fd : pipe_) {
      if (fd >= 0 && isOpen(fd)) close(fd);
    }
  }
  // Takes the read end over; the test keeps writing to the other.
  Ptr<FileDescriptor> readEnd() {
    auto fd = Mox::make<FileDescriptor>("pipe", pipe_[0]);
    pipe_[0] = -1;
    return fd;
  }
  void writeByte() { ::writeByte(pipe_[1]); }
  void turns(int count) {
    for (int i = 0; i < count; ++i) Mox::runOnce();
  }

  int pipe_[2] = {-1, -1};
};

// --- ownership ---

// A refused descriptor is closed, leaves the object empty and names the failing step.
TEST_F(FileDescriptorTest, RefusedDescriptorThrowsNamingTheStep) {
  // epoll refuses regular files (and memfds) with EPERM.
  const int file = memfd_create("korva-fd-test", MFD_CLOEXEC);
  ASSERT_GE(file, 0);
  const struct {
    int descriptor;
    const char* step;
    int error;
  } cases[] = {{1 << 20, "fcntl(O_NONBLOCK)", EBADF}, {file, "epoll_ctl(EPOLL_CTL_ADD)", EPERM}};
  for (const auto& c : cases) {
    auto fd = Mox::make<FileDescriptor>("refused");
    try {
      fd->descriptorIs(c.descriptor);
      ADD_FAILURE() << "no exception for " << c.step;
    } catch (const Mox::ErrnoException& e) {
      EXPECT_STREQ(e.what(), c.step);
      EXPECT_EQ(e.errorNumber(), c.error);
    }
    EXPECT_EQ(fd->descriptor(), -1);
  }
  EXPECT_FALSE(isOpen(file));
}

// Every close goes through the owner's closer, once per descriptor: a replaced one, a
// refused one and the last one when the entity goes; a released descriptor stays open and
// unwatched, and the entity no longer closes it.
TEST_F(FileDescriptorTest, ClosesThroughItsCloserAndReleasesOpen) {
  static std::vector<int> closed;
  closed.clear();
  const FileDescriptor::Closer recording = [](int descriptor) {
    closed.push_back(descriptor);
    return close(descriptor);
  };
  const int first = pipe_[0], second = pipe_[1];
  pipe_[0] = pipe_[1] = -1;
  auto fd = Mox::make<FileDescriptor>("closer", first, recording);
  fd->descriptorIs(second);
  EXPECT_EQ(closed, std::vector<int>{first});
  EXPECT_GE(kernelWatchedEvents(second), 0);
  EXPECT_EQ(fd->release(), second);
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_EQ(kernelWatchedEvents(second), -1);
  EXPECT_EQ(fd->release(), -1);
  const int refused = memfd_create("korva-fd-test", MFD_CLOEXEC);
  EXPECT_THROW(fd->descriptorIs(refused), Mox::ErrnoException);
  fd->descriptorIs(dup(second));
  const int last = fd->descriptor();
  fd = nullptr;
  EXPECT_EQ(closed, (std::vector<int>{first, refused, last}));
  EXPECT_TRUE(isOpen(second));
  EXPECT_TRUE(fcntl(second, F_GETFL) & O_NONBLOCK) << "released as it was held";
  close(second);
}

// --- readiness ---

TEST_F(FileDescriptorTest, LevelCountsEveryTurnUntilReadEdgeOncePerArrival) {
  auto fd = readEnd();
  Counter counter(fd);
  turns(2);
  EXPECT_EQ(fd->readableCount(), 0u);
  writeByte();
  turns(3);
  EXPECT_EQ(counter.readable, 3);
  char byte;
  ASSERT_EQ(read(fd->descriptor(), &byte, 1), 1);
  turns(2);
  EXPECT_EQ(fd->readableCount(), 3u);
  fd->edgeTriggeredIs(true);
  EXPECT_FALSE(fd->levelTriggered());
  for (unsigned expected : {4u, 5u}) {
    writeByte();
    turns(3);
    EXPECT_EQ(fd->readableCount(), expected);
  }
  // Back to level: the unread bytes are reported again at once.
  fd->edgeTriggeredIs(false);
  turns(2);
  EXPECT_EQ(fd->readableCount(), 7u);
  EXPECT_EQ(fd->writableCount(), 0u);
}

TEST_F(FileDescriptorTest, WritableOnlyWhileSwitchedOnAndRearmedWhenSwitchedOnAgain) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  auto fd = Mox::make<FileDescriptor>("socket", pair[0]);
  auto peer = Mox::make<FileDescriptor>("peer", pair[1]);
  Counter counter(fd);
  turns(2);
  EXPECT_EQ(fd->writableCount(), 0u);
  fd->notifyOnWritableIs(true);
  turns(2);
  EXPECT_EQ(counter.writable, 2);
  fd->notifyOnWritableIs(false);
  turns(2);
  EXPECT_EQ(fd->writableCount(), 2u);
  fd->edgeTriggeredIs(true);
  for (int expected : {3, 4}) {
    fd->notifyOnWritableIs(true);
    turns(3);
    EXPECT_EQ(fd->writableCount(), unsigned(expected));
    fd->notifyOnWritableIs(false);
  }
  EXPECT_EQ(fd->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, KernelWatchesExactlyWhatIsAskedFor) {
  auto& manager = *Mox::ActivityManagerConfig::current();
  const size_t before = manager.watchedDescriptorCount();
  auto fd = readEnd();
  const int raw = fd->descriptor();
  EXPECT_EQ(manager.watchedDescriptorCount(), before + 1);
  EXPECT_EQ(kernelWatchedEvents(raw), EPOLLIN | EPOLLRDHUP);
  fd->notifyOnWritableIs(true);
  EXPECT_EQ(kernelWatchedEvents(raw), EPOLLIN | EPOLLRDHUP | EPOLLOUT);
  fd->edgeTriggeredIs(true);
  EXPECT_EQ(kernelWatchedEvents(raw), long(EPOLLIN | EPOLLRDHUP | EPOLLOUT | EPOLLET));
  fd->notifyOnReadableIs(false);
  EXPECT_EQ(kernelWatchedEvents(raw), long(EPOLLOUT | EPOLLET));
  fd->notifyOnWritableIs(false);
  EXPECT_EQ(kernelWatchedEvents(raw), -1);
  EXPECT_EQ(manager.watchedDescriptorCount(), before);
  // What arrived while nothing was watched is reported once watched again.
  writeByte();
  turns(2);
  EXPECT_EQ(fd->readableCount(), 0u);
  fd->notifyOnReadableIs(true);
  EXPECT_EQ(kernelWatchedEvents(raw), long(EPOLLIN | EPOLLRDHUP | EPOLLET));
  turns(2);
  EXPECT_EQ(fd->readableCount(), 1u);
  fd->descriptorIs(-1);
  EXPECT_EQ(kernelWatchedEvents(raw), -1);
}

TEST_F(FileDescriptorTest, HangUpIsReportedAsReadable) {
  auto fd = readEnd();
  close(pipe_[1]);
  pipe_[1] = -1;
  turns(1);
  EXPECT_EQ(fd->readableCount(), 1u);
  char byte;
  EXPECT_EQ(read(fd->descriptor(), &byte, 1), 0);
}

// --- reactors changing descriptors (notifiee walks are the entity tests') ---

TEST_F(FileDescriptorTest, DescriptorDestroyedByAnEarlierReactorOfTheSameTurnIsSkipped) {
  // Both pipes are ready in one turn. Whichever reactor runs first destroys the other
  // descriptor and makes a new one that likely takes over its registry slot and number;
  // the stale event must reach neither.
  auto a = readEnd();
  int other[2], fresh[2];
  ASSERT_EQ(pipe(other), 0);
  ASSERT_EQ(pipe(fresh), 0);
  auto b = Mox::make<FileDescriptor>("other", other[0]);
  Ptr<FileDescriptor> replacement;
  Counter onA(a), onB(b);
  auto destroy = [&](Ptr<FileDescriptor>& victim, Counter& victimCounter) {
    victimCounter.notifierIs(nullptr);
    victim = nullptr;
    replacement = Mox::make<FileDescriptor>("replacement", fresh[0]);
  };
  onA.onReadable = [&] { destroy(b, onB); };
  onB.onReadable = [&] { destroy(a, onA); };
  writeByte();
  ::writeByte(other[1]);
  turns(1);
  EXPECT_EQ(onA.readable + onB.readable, 1);
  ASSERT_TRUE(replacement);
  EXPECT_EQ(replacement->readableCount(), 0u);
  close(other[1]);
  close(fresh[1]);
}

TEST_F(FileDescriptorTest, ReactorDroppingTheLastReferenceEndsCleanly) {
  auto fd = readEnd();
  const int raw = fd->descriptor();
  auto counter = std::make_unique<Counter>(fd);
  counter->onReadable = [&] {
    fd = nullptr;
    counter->notifierIs(nullptr);
  };
  writeByte();
  turns(1);
  EXPECT_EQ(counter->readable, 1);
  EXPECT_FALSE(isOpen(raw));
}

}  // namespace
