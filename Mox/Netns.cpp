#include <Mox/Netns.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Mox {

namespace {

thread_local std::string traceBuffer;

// Records the failure text for netnsGetTracebuffer and returns -1 with errno preserved.
int fail(const std::string& step, int error) {
  traceBuffer = step + ": " + std::strerror(error);
  errno = error;
  return -1;
}

// One thread parked inside a namespace, making sockets there on request. A request and
// its answer pass through `phase_`; each side first spins briefly (yielding the core) and
// only then sleeps, because waking a sleeping thread on another core costs tens of
// microseconds on a virtual machine, more than the socket itself, and agents tend to open
// their sockets in bursts.
class NamespaceWorker {
 public:
  // Starts the worker in the namespace whose file `path` is; nullptr and errno on failure.
  static std::unique_ptr<NamespaceWorker> start(const std::string& path, const struct stat& file);
  ~NamespaceWorker();

  bool denotes(const struct stat& file) const {
    return file.st_dev == device_ && file.st_ino == inode_;
  }
  // Returns the socket descriptor, or -1 with errno set.
  int socket(int domain, int type, int protocol);

 private:
  enum class Phase { starting, failed, idle, requested, answered, stopping };
  struct Request {
    int domain, type, protocol;
  };
  static constexpr auto kSpin = std::chrono::microseconds(200);

  NamespaceWorker(const struct stat& file) : device_(file.st_dev), inode_(file.st_ino) {}
  void run(std::string path);
  void phaseIs(Phase phase);
  // Waits until the phase is one of the two given; returns it.
  Phase awaitPhase(Phase wanted, Phase orElse);

  dev_t device_;
  ino_t inode_;
  std::mutex requesters_;  // one request at a time
  std::mutex mutex_;       // guards sleeping on wake_
  std::condition_variable wake_;
  std::atomic<Phase> phase_{Phase::starting};
  Request request_{};
  int result_ = -1;
  int error_ = 0;
  std::thread thread_;
};

std::unique_ptr<NamespaceWorker> NamespaceWorker::start(const std::string& path,
                                                        const struct stat& file) {
  std::unique_ptr<NamespaceWorker> worker(new NamespaceWorker(file));
  worker->thread_ = std::thread(&NamespaceWorker::run, worker.get(), path);
  if (worker->awaitPhase(Phase::idle, Phase::failed) == Phase::failed) {
    int error = worker->error_;
    worker.reset();
    errno = error;
  }
  return worker;
}

NamespaceWorker::~NamespaceWorker() {
  if (phase_.load() != Phase::failed) phaseIs(Phase::stopping);
  if (thread_.joinable()) thread_.join();
}

void NamespaceWorker::phaseIs(Phase phase) {
  {
    std::lock_guard lock(mutex_);
    phase_.store(phase, std::memory_order_release);
  }
  wake_.notify_all();
}

NamespaceWorker::Phase NamespaceWorker::awaitPhase(Phase wanted, Phase orElse) {
  auto reached = [&] {
    Phase now = phase_.load(std::memory_order_acquire);
    return now == wanted || now == orElse;
  };
  const auto deadline = std::chrono::steady_clock::now() + kSpin;
  while (!reached() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  if (!reached()) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, reached);
  }
  return phase_.load(std::memory_order_acquire);
}

void NamespaceWorker::run(std::string path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int entered = fd < 0 ? -1 : ::setns(fd, CLONE_NEWNET);
  error_ = errno;
  if (fd >= 0) ::close(fd);
  phaseIs(entered == 0 ? Phase::idle : Phase::failed);
  if (entered != 0) return;
  while (awaitPhase(Phase::requested, Phase::stopping) == Phase::requested) {
    result_ = ::socket(request_.domain, request_.type, request_.protocol);
    error_ = errno;
    phaseIs(Phase::answered);
  }
}

int NamespaceWorker::socket(int domain, int type, int protocol) {
  std::lock_guard serial(requesters_);
  request_ = {domain, type, protocol};
  phaseIs(Phase::requested);
  awaitPhase(Phase::answered, Phase::answered);
  const int result = result_;
  const int error = error_;
  phase_.store(Phase::idle, std::memory_order_relaxed);
  errno = error;
  return result;
}

// At most this many workers stay parked; the least recently used one beyond it is ended.
// Each holds a thread and keeps its namespace alive, and agents use few namespaces at once.
constexpr size_t kMaxParkedWorkers = 8;

struct ParkedWorker {
  std::shared_ptr<NamespaceWorker> worker;
  unsigned long lastUse = 0;
};

struct WorkerRegistry {
  std::mutex mutex;
  std::map<std::string, ParkedWorker> byName;
  unsigned long uses = 0;
};

WorkerRegistry& workers() {
  static WorkerRegistry* registry = new WorkerRegistry;  // workers live for the process
  return *registry;
}

using Retired = std::vector<std::shared_ptr<NamespaceWorker>>;

// Takes out every worker whose name is gone or now names another namespace (deleted by
// `ip netns del` or another process, perhaps made again): a worker would otherwise keep
// the deleted namespace alive for the life of the process. Retired workers end when the
// caller drops them, outside the registry lock.
void retireOrphans(WorkerRegistry& registry, Retired& retired) {
  char path[4096];
  struct stat file;
  for (auto it = registry.byName.begin(); it != registry.byName.end();) {
    const bool named = netnsRunPath(it->first.c_str(), path, sizeof path) == 0 &&
                       ::stat(path, &file) == 0 && it->second.worker->denotes(file);
    if (named) {
      ++it;
      continue;
    }
    retired.push_back(std::move(it->second.worker));
    it = registry.byName.erase(it);
  }
}

void retireLeastRecentlyUsed(WorkerRegistry& registry, Retired& retired) {
  while (registry.byName.size() > kMaxParkedWorkers) {
    auto oldest = registry.byName.begin();
    for (auto it = oldest; it != registry.byName.end(); ++it) {
      if (it->second.lastUse < oldest->second.lastUse) oldest = it;
    }
    retired.push_back(std::move(oldest->second.worker));
    registry.byName.erase(oldest);
  }
}

}  // namespace

int netnsRunPath(const char* name, char* buffer, size_t size) {
  int written = std::snprintf(buffer, size, "%s/%s", kNetnsRunDir, name);
  if (written < 0 || static_cast<size_t>(written) >= size) {
    return fail(std::string("namespace path too long for ") + name, ENAMETOOLONG);
  }
  return 0;
}

int getnsByName(const char* name) {
  char path[4096];
  if (netnsRunPath(name, path, sizeof path) < 0) return -1;
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fail(std::string("open ") + path, errno);
  return fd;
}

int setnsByName(const char* name) {
  int fd = getnsByName(name);
  if (fd < 0) return -1;
  int result = ::setns(fd, CLONE_NEWNET);
  int error = errno;
  ::close(fd);
  if (result < 0) return fail(std::string("setns ") + name, error);
  return 0;
}

int netnsSocketAt(int domain, int type, int protocol, const char* name) {
  char path[4096];
  if (netnsRunPath(name, path, sizeof path) < 0) return -1;
  WorkerRegistry& registry = workers();
  Retired retired;  // declared before the lock, so retired workers end after it is released
  std::unique_lock lock(registry.mutex);
  retireOrphans(registry, retired);
  struct stat file;
  if (::stat(path, &file) < 0) return fail(std::string("stat ") + path, errno);

  ParkedWorker& parked = registry.byName[name];
  if (!parked.worker) {
    parked.worker = NamespaceWorker::start(path, file);
    if (!parked.worker) {
      const int error = errno;
      registry.byName.erase(name);
      return fail(std::string("enter namespace ") + name, error);
    }
  }
  parked.lastUse = ++registry.uses;
  // Shared, so a concurrent retirement cannot pull the worker from under this request.
  std::shared_ptr<NamespaceWorker> current = parked.worker;
  retireLeastRecentlyUsed(registry, retired);
  lock.unlock();
  int fd = current->socket(domain, type, protocol);
  if (fd < 0) return fail(std::string("socket in namespace ") + name, errno);
  return fd;
}

void netnsForget(const char* name) {
  std::shared_ptr<NamespaceWorker> worker;
  {
    WorkerRegistry& registry = workers();
    std::lock_guard lock(registry.mutex);
    auto found = registry.byName.find(name);
    if (found == registry.byName.end()) return;
    worker = std::move(found->second.worker);
    registry.byName.erase(found);
  }
  // The worker stops and is joined when its last request, if one is under way, is done.
}

const char* netnsGetTracebuffer() {
  return traceBuffer.c_str();
}

}  // namespace Mox
