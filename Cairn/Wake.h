#pragma once
// How a table's writer wakes its readers in other processes. Each watching reader claims a
// slot in the table's reader registry (a small read-write segment beside the table) and
// binds a Unix datagram socket at a path named after that slot; its event loop watches the
// socket. After publishing a change the writer sends one byte to every reader whose
// "awake" flag it flips from 0 to 1; the reader clears the flag before it reads the change
// ring, so a burst of changes costs one datagram per reader and none is ever missed.
// A datagram socket (rather than a FIFO) lets the writer send without SIGPIPE and without
// blocking, to a reader that may have died; a futex would not be a descriptor.

#include <Cairn/Segment.h>

#include <sys/un.h>

#include <atomic>
#include <string>
#include <vector>

namespace Cairn {

struct WakeRegistry;

// The writer's side: knows the registered readers and pokes them.
class WakeSender {
 public:
  WakeSender(const std::string& table, const Access& access);
  ~WakeSender();
  WakeSender(const WakeSender&) = delete;
  WakeSender& operator=(const WakeSender&) = delete;
  void wake();

 private:
  void refresh();

  std::string table_;
  Mapping mapping_;
  WakeRegistry* registry_ = nullptr;
  int socket_ = -1;
  U32 generation_ = ~U32(0);
  struct Target {
    U32 slot;
    sockaddr_un address;
  };
  std::vector<Target> targets_;
};

// A reader's side: a claimed registry slot and the bound socket its loop watches.
class WakeReceiver {
 public:
  // Throws Mox::Exception when every slot is taken by a live reader.
  WakeReceiver(const std::string& table, const Access& access);
  ~WakeReceiver();
  WakeReceiver(const WakeReceiver&) = delete;
  WakeReceiver& operator=(const WakeReceiver&) = delete;
  // Takes the socket's descriptor away (for a Mox::FileDescriptor to own).
  int releaseDescriptor() noexcept;
  // Drains the wake-ups on `descriptor` and re-arms the writer's next one. Call before
  // reading the change ring.
  void acknowledge(int descriptor) noexcept;
  // Makes the reader's own loop see the socket readable (its first turn runs a walk).
  void poke(int descriptor) noexcept;

 private:
  std::string path_;
  Mapping mapping_;
  WakeRegistry* registry_ = nullptr;
  U32 slot_ = 0;
  int socket_ = -1;
};

std::string registryObject(const std::string& table);
std::string wakeSocketPath(const std::string& table, U32 slot);
constexpr U32 maxWatchers = 64;

}  // namespace Cairn
