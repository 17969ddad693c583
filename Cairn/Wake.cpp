#include <Cairn/Wake.h>

#include <Mox/Exception.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Cairn {

// Zero bytes are an empty registry, so whoever maps it first needs no set-up.
struct WakeRegistry {
  struct Slot {
    std::atomic<U32> pid;    // 0: free
    std::atomic<U32> awake;  // 1: a wake-up is on its way and not yet acknowledged
  };
  std::atomic<U32> generation;  // bumped whenever a slot is claimed or freed
  U32 reserved;
  Slot slots[maxWatchers];
};
static_assert(sizeof(WakeRegistry) == 8 + 8 * maxWatchers);
static_assert(std::atomic<U32>::is_always_lock_free);

namespace {

WakeRegistry* mapRegistry(Mapping& mapping, const std::string& table, const Access& access) {
  mapping.openWritable(registryObject(table), true, access);
  mapping.ensureSize(sizeof(WakeRegistry));
  return static_cast<WakeRegistry*>(mapping.map(sizeof(WakeRegistry)));
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

bool processGone(U32 pid) {
  return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

int datagramSocket() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw Mox::ErrnoException(errno, "socket(AF_UNIX)");
  return fd;
}

}  // namespace

std::string registryObject(const std::string& table) {
  return tableObject(table) + ".readers";
}

std::string wakeSocketPath(const std::string& table, U32 slot) {
  return shmPath(tableObject(table) + ".reader" + std::to_string(slot));
}

WakeSender::WakeSender(const std::string& table, const Access& access) : table_(table) {
  registry_ = mapRegistry(mapping_, table, access);
  socket_ = datagramSocket();
}

WakeSender::~WakeSender() {
  close(socket_);
}

void WakeSender::refresh() {
  generation_ = registry_->generation.load(std::memory_order_acquire);
  targets_.clear();
  for (U32 slot = 0; slot < maxWatchers; ++slot) {
    if (registry_->slots[slot].pid.load(std::memory_order_relaxed) == 0) continue;
    targets_.push_back({slot, socketAddress(wakeSocketPath(table_, slot))});
  }
}

void WakeSender::wake() {
  if (registry_->generation.load(std::memory_order_acquire) != generation_) refresh();
  for (const Target& target : targets_) {
    // Sequentially consistent: either the reader's acknowledgement comes before this and
    // we send, or its ring read comes after our publication and it sees the change.
    if (registry_->slots[target.slot].awake.exchange(1) != 0) continue;
    const char byte = 0;
    // A full queue means the reader is awake anyway; a dead reader just misses it.
    sendto(socket_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&target.address), sizeof target.address);
  }
}

WakeReceiver::WakeReceiver(const std::string& table, const Access& access) {
  registry_ = mapRegistry(mapping_, table, access);
  const U32 self = static_cast<U32>(getpid());
  for (slot_ = 0; slot_ < maxWatchers; ++slot_) {
    std::atomic<U32>& pid = registry_->slots[slot_].pid;
    U32 holder = pid.load();
    if ((holder == 0 || processGone(holder)) && pid.compare_exchange_strong(holder, self)) break;
  }
  if (slot_ == maxWatchers) throw Mox::Exception("table " + table + ": too many watching readers");
  path_ = wakeSocketPath(table, slot_);
  const sockaddr_un address = socketAddress(path_);
  try {
    socket_ = datagramSocket();
    unlink(path_.c_str());
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw Mox::ErrnoException(errno, "bind(" + path_ + ")");
    }
    const mode_t mode = access.group == Access::noGroup ? 0600 : 0660;
    if (access.group != Access::noGroup && chown(path_.c_str(), -1, access.group) != 0) {
      throw Mox::ErrnoException(errno, "chown(" + path_ + ")");
    }
    if (chmod(path_.c_str(), mode) != 0) throw Mox::ErrnoException(errno, "chmod(" + path_ + ")");
  } catch (...) {
    if (socket_ >= 0) close(socket_);
    registry_->slots[slot_].pid.store(0);
    throw;
  }
  registry_->slots[slot_].awake.store(0);
  registry_->generation.fetch_add(1);
}

WakeReceiver::~WakeReceiver() {
  if (socket_ >= 0) close(socket_);
  unlink(path_.c_str());
  registry_->slots[slot_].pid.store(0);
  registry_->generation.fetch_add(1);
}

int WakeReceiver::releaseDescriptor() noexcept {
  return std::exchange(socket_, -1);
}

void WakeReceiver::acknowledge(int descriptor) noexcept {
  char buffer[64];
  while (recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
  }
  registry_->slots[slot_].awake.store(0);
}

void WakeReceiver::poke(int descriptor) noexcept {
  const sockaddr_un address = socketAddress(path_);
  const char byte = 0;
  sendto(descriptor, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

}  // namespace Cairn
