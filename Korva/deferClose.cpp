#include <Korva/deferClose.h>
#include <Mox/Assert.h>

#include <signal.h>
#include <unistd.h>

namespace Korva {

namespace {

DeferCloseStats stats;
bool closerNotStarted = true;

void* closerThread(void*) {
  // Signals belong to the agent's own thread; only faults of this thread stay deliverable.
  sigset_t blocked;
  sigfillset(&blocked);
  for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  for (;;) {
    while (sem_wait(&stats.semaphore) != 0) {
    }
    U32 slot = stats.closed.load(std::memory_order_relaxed) & (DeferCloseStats::ringSize - 1);
    close(stats.ring[slot]);
    stats.closed.fetch_add(1, std::memory_order_release);
  }
  return nullptr;
}

void startCloser() {
  MOX_ASSERT(sem_init(&stats.semaphore, 0, 0) == 0);
  MOX_ASSERT(pthread_create(&stats.thread, nullptr, closerThread, nullptr) == 0);
  pthread_detach(stats.thread);
  closerNotStarted = false;
}

}  // namespace

const DeferCloseStats& deferCloseStats() {
  return stats;
}

int deferClose(int fd) {
  if (closerNotStarted) startCloser();
  U32 enqueued = stats.enqueued.load(std::memory_order_relaxed);
  if (enqueued - stats.closed.load(std::memory_order_acquire) == DeferCloseStats::ringSize) {
    stats.closedInline.fetch_add(1, std::memory_order_relaxed);
    return close(fd);
  }
  stats.ring[enqueued & (DeferCloseStats::ringSize - 1)] = fd;
  stats.enqueued.store(enqueued + 1, std::memory_order_relaxed);
  sem_post(&stats.semaphore);  // publishes the slot to the closer
  return 0;
}

}  // namespace Korva
