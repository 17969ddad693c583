#pragma once
// Closing a descriptor can block (a packet socket draining its ring, a lingering TCP
// socket), which an event loop must never do. deferClose hands the descriptor to a closer
// thread through a 512-slot ring; when the ring is full it closes at once instead.

#include <Korva/Types.h>

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

namespace Korva {

struct DeferCloseStats {
  static constexpr U32 ringSize = 512;

  std::atomic<U32> enqueued{0};      // descriptors handed to the closer (callers write)
  std::atomic<U32> closed{0};        // descriptors the closer has closed (closer writes)
  std::atomic<U32> closedInline{0};  // closed on the caller's thread because the ring was full
  sem_t semaphore;
  pthread_t thread;
  int ring[ringSize];
};

// The process-wide record of the closer.
const DeferCloseStats& deferCloseStats();

// Returns 0 once the descriptor is queued, or the result of close() when it was closed at
// once. Callers are the agent's event-loop thread: one producer.
int deferClose(int fd);

}  // namespace Korva
